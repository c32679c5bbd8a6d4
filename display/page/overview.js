// Many channels at a glance: one canvas, a small spectrum each.
import {byId, everything, hues, layout, saveCsv, savePng, scales, style} from "./common.js";

const view = 2, mostChannels = 256, tileHeight = 90;

export class Overview {
    constructor(app) {
        this.app = app;
        this.times = []; // ms that the last pictures took to draw
        byId("tiles").addEventListener("click", (event) => this.pick(event));
    }

    show() { this.shown = true; this.look(); }
    hide() { this.shown = false; this.app.live.leave(view); }
    select() { this.look(); }

    look() {
        const module = this.app.module();
        if (!this.shown || !module)
            return;
        const width = byId("tiles").clientWidth || 800;
        const axes = layout(module), frame = Math.min(this.app.frames()[0], axes.frames - 1);
        this.all = axes.channels;
        this.channels = Math.min(this.all, mostChannels);
        this.across = Math.max(1, Math.min(8, Math.floor(width / 140)));
        this.frame = frame;
        const columns = Math.floor(width / this.across * devicePixelRatio) - 6;
        this.app.live.look(view, module.name, [0, everything, ...axes.box(0, this.channels - 1, frame, frame)], columns, this.channels,
            (m) => this.draw(m));
    }

    draw(message) {
        const begun = performance.now();
        const canvas = byId("tiles"), ratio = devicePixelRatio;
        this.head = message;
        const {frame} = this;
        const down = Math.ceil(message.rows / this.across);
        const width = Math.floor((canvas.clientWidth || 800) * ratio), height = Math.max(1, Math.floor(down * tileHeight * ratio));
        if (canvas.width !== width || canvas.height !== height) {
            canvas.width = width;
            canvas.height = height;
            canvas.style.height = `${down * tileHeight}px`;
        }
        const ink = style("--ink"), ctx = canvas.getContext("2d"), scale = scales[byId("scale").value].to;
        ctx.clearRect(0, 0, width, height);
        ctx.lineWidth = 1;
        ctx.font = `${10 * ratio}px sans-serif`;
        const tile = width / this.across, tall = tileHeight * ratio, base = 4 * ratio;
        for (let row = 0; row < message.rows; ++row) {
            const left = (row % this.across) * tile + 3, bottom = (Math.floor(row / this.across) + 1) * tall - base;
            const values = message.values.subarray(row * message.columns, (row + 1) * message.columns);
            let top = 0;
            for (const v of values)
                top = v > top ? v : top;
            const floor = scale(0), room = (tall - 18 * ratio) / (scale(top || 1) - floor), step = (tile - 6) / message.columns;
            ctx.strokeStyle = hues[row % hues.length];
            ctx.beginPath();
            for (let i = 0; i < values.length; ++i)
                ctx.lineTo(left + i * step, bottom - (scale(values[i] || 0) - floor) * room);
            ctx.stroke();
            ctx.fillStyle = ink;
            ctx.fillText(`${row}  ${top}`, left + 2, bottom - tall + 14 * ratio + base);
        }
        this.times.push(performance.now() - begun);
        if (this.times.length > 100)
            this.times.shift();
        byId("overviewnote").textContent = `${message.rows} of ${this.all} channels, ${message.nx} bins, frame ${frame}; ` +
            `number and highest bin; drawn in ${this.times.at(-1).toFixed(1)} ms`;
    }

    // A click shows that channel's spectrum.
    pick(event) {
        const tile = byId("tiles").clientWidth / this.across;
        const channel = Math.floor(event.offsetY / tileHeight) * this.across + Math.floor(event.offsetX / tile);
        if (!this.head || channel >= this.head.rows)
            return;
        byId("channels").value = String(channel);
        this.app.showTab("spectra");
    }

    saves() { return this.app.module() && this.head?.rows ? ["csv", "png"] : []; }

    csv() {
        const rows = [];
        for (let row = 0; row < this.head.rows; ++row)
            rows.push([row, ...this.head.values.subarray(row * this.head.columns, (row + 1) * this.head.columns)]);
        saveCsv(`${this.app.module().name}-overview.csv`, rows);
    }

    png() { savePng(`${this.app.module().name}-overview.png`, byId("tiles")); }
    key() { return false; }
}
