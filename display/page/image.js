// A plane of a module in false colour: x and y of one frame, or x and frames of one channel (a waterfall); profiles along
// the row and the column that were clicked.
import {byId, everything, firstBin, indexOf, layout, saveCsv, savePng, short, style} from "./common.js";

const view = 1;
const nothingThere = "Nothing can be shown: the module has gone, or the display has no room for as much of it.";

// 256 colours from dark blue over green to yellow.
const palette = Uint32Array.from({length: 256}, (_, i) => {
    const f = i / 255, wave = (shift, width) => Math.exp(-(((f - shift) / width) ** 2));
    const red = 255 * Math.min(1, 0.27 * wave(0, 0.25) + 0.99 * f ** 3), green = 255 * Math.min(1, 0.02 + 0.95 * f);
    const blue = 255 * Math.min(1, 0.33 + 0.25 * wave(0.35, 0.3) - 0.25 * f);
    return (255 << 24 | Math.round(blue) << 16 | Math.round(green) << 8 | Math.round(red)) >>> 0;
});

// Where each value stands from 0 to 255: linear, logarithmic, or as many pixels in each colour.
export function ranks(values, how) {
    const out = new Uint8Array(values.length);
    if (how === "equalised") {
        const sorted = Float64Array.from(values).filter(Number.isFinite).sort();
        const distinct = Array.from(new Set(sorted)), below = new Map();
        sorted.forEach((v, i) => { if (!below.has(v)) below.set(v, i); });
        const last = below.get(distinct.at(-1)) || 1;
        values.forEach((v, i) => { out[i] = 255 * (below.get(v) ?? 0) / last; });
        return out;
    }
    const to = how === "log" ? (v) => Math.log1p(Math.max(v, 0)) : (v) => v;
    let low = Infinity, high = -Infinity;
    for (const v of values) {
        low = v < low ? v : low;
        high = v > high ? v : high;
    }
    const from = to(low), room = to(high) - from || 1;
    values.forEach((v, i) => { out[i] = 255 * (to(v) - from) / room; });
    return out;
}

export class Picture {
    constructor(app) {
        this.app = app;
        for (const id of ["plane", "planenumber"])
            byId(id).addEventListener("change", () => this.look());
        byId("colours").addEventListener("change", () => this.head && this.draw(this.head));
        byId("picture").addEventListener("click", (event) => {
            const canvas = byId("picture"), box = canvas.getBoundingClientRect();
            this.mark = [Math.floor((event.clientX - box.left) / box.width * canvas.width),
                Math.floor((event.clientY - box.top) / box.height * canvas.height)];
            this.profiles();
        });
    }

    show() { this.shown = true; this.look(); }
    hide() { this.shown = false; this.app.live.leave(view); }
    select() { this.mark = null; this.look(); }

    look() {
        const module = this.app.module();
        if (!this.shown || !module)
            return;
        const waterfall = byId("plane").value === "xt", n = indexOf("planenumber");
        [this.upward, this.plane] = waterfall ? ["frame", "channel"] : ["channel", "frame"];
        byId("planename").textContent = this.plane;
        this.turned = layout(module).turned;
        const width = Math.max(200, (byId("image").clientWidth || 800) - 130);
        const plane = layout(module).box(...(waterfall ? [n, n, 0, everything] : [0, everything, n, n]));
        this.app.live.look(view, module.name, [0, everything, ...plane], width, 480, (m) => this.draw(m));
    }

    draw(message) {
        this.head = message;
        const canvas = byId("picture"), pixels = new Uint32Array(message.columns * message.rows);
        if (!pixels.length) {
            for (const id of ["picture", "profilex", "profiley"])
                byId(id).getContext("2d").clearRect(0, 0, byId(id).width, byId(id).height);
            byId("imagereadout").textContent = nothingThere;
            return;
        }
        ranks(message.values, byId("colours").value).forEach((rank, i) => { pixels[i] = palette[rank]; });
        canvas.width = message.columns;
        canvas.height = message.rows;
        const width = Math.max(200, (byId("image").clientWidth || 800) - 130);
        canvas.style.width = `${width}px`;
        canvas.style.height = `${Math.min(480, Math.max(width * message.rows / message.columns, 160))}px`;
        canvas.getContext("2d").putImageData(new ImageData(new Uint8ClampedArray(pixels.buffer), message.columns, message.rows), 0, 0);
        this.mark ??= [message.columns >> 1, message.rows >> 1];
        this.profiles();
    }

    profiles() {
        const {columns, rows, values} = this.head;
        if (!rows)
            return;
        const x = Math.min(this.mark[0], columns - 1), y = Math.min(this.mark[1], rows - 1);
        const along = Array.from(values.subarray(y * columns, (y + 1) * columns));
        const down = Array.from({length: rows}, (_, i) => values[i * columns + x]);
        line(byId("profilex"), along, parseInt(byId("picture").style.width), 120, false);
        line(byId("profiley"), down, 120, parseInt(byId("picture").style.height), true);
        this.shownProfiles = {x, y, along, down};
        const xs = range(firstBin(this.head, x), firstBin(this.head, x + 1)), ys = range(this.rowOf(y), this.rowOf(y + 1));
        byId("imagereadout").textContent = `x ${xs}, ${this.upward} ${ys}, ${this.plane} ${this.planeNumber()} ` +
            `(module ${this.head.nx} × ${this.head.ny} × ${this.head.nt}): ${short(values[y * columns + x])}` +
            `${/–/.test(xs + ys) ? " (maximum)" : ""}`;
    }

    // The first of the channels or frames that a row of the picture shows the maximum of.
    rowOf(row) {
        const height = Math.max(this.head.y1 - this.head.y0, this.head.t1 - this.head.t0) + 1;
        return Math.ceil(height * row / this.head.rows);
    }

    // What the display took for the number that was typed.
    planeNumber() { return (this.plane === "channel") === this.turned ? this.head.t0 : this.head.y0; }

    saves() { return this.app.module() && this.head?.rows ? ["csv", "png"] : []; }

    // The first line and the first column tell where in the module.
    csv() {
        const {columns, rows, values} = this.head;
        saveCsv(`${this.app.module().name}-image.csv`, [
            [`${this.upward} / x`, ...Array.from({length: columns}, (_, x) => firstBin(this.head, x))],
            ...Array.from({length: rows}, (_, y) => [this.rowOf(y), ...values.subarray(y * columns, (y + 1) * columns)])]);
    }

    png() { savePng(`${this.app.module().name}-image.png`, byId("picture")); }
    key() { return false; }
}

// From..before, both whole numbers.
function range(from, before) { return before - from > 1 ? `${from}–${before - 1}` : `${from}`; }

function line(canvas, values, width, height, upright) {
    canvas.width = width;
    canvas.height = height;
    const ctx = canvas.getContext("2d");
    const low = Math.min(0, ...values), room = Math.max(...values) - low || 1;
    ctx.strokeStyle = style("--mark");
    ctx.beginPath();
    values.forEach((v, i) => {
        const along = (i + 0.5) / values.length, up = (v - low) / room;
        if (upright)
            ctx.lineTo(2 + up * (width - 4), along * height);
        else
            ctx.lineTo(along * width, height - 2 - up * (height - 4));
    });
    ctx.stroke();
}
