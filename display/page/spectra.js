// Spectra over one another: scales, energy axis, zoom and pan, cursor, regions, lines of elements.
import uPlot from "./uPlot.esm.js";
import {bins, byId, everything, firstBin, hues, layout, most, numberOf, numbersOf, saveCsv, savePng, scales, short, style, tickTexts} from "./common.js";
import {elementLines} from "./lines.js";

const view = 0, firstRegion = 8, mostRegions = 6, sideBins = 3;
const nothingThere = "Nothing can be shown: the module has gone, or the display has no room for as much of it.";

export class Spectra {
    constructor(app) {
        this.app = app;
        this.range = null; // [first, last] channel, null: all
        this.regions = []; // {from, to, channel, frame, y, t, result}
        this.series = [];  // {channel, frame, y, t, values}, as they came
        for (const id of ["channels", "frames"])
            byId(id).addEventListener("change", () => { this.forgetRegions(); this.look(); });
        for (const id of ["scale", "offset", "gain", "elements"])
            byId(id).addEventListener("input", () => this.draw());
        byId("full").addEventListener("click", () => this.zoom(null));
        byId("region").addEventListener("click", () => this.addRegion(...this.shownRange()));
        new ResizeObserver(() => { if (this.shown) this.look(); }).observe(byId("plot"));
    }

    show() { this.shown = true; this.look(); }
    hide() { this.shown = false; this.app.live.leave(view); this.leaveRegions(); }
    select() {
        this.range = null;
        this.head = null;
        this.app.live.leave(view); // what was sent before is asked for anew
        this.forgetRegions();
        this.look();
    }

    look() {
        const module = this.app.module();
        if (!this.shown || !module)
            return;
        const axes = this.axes = layout(module);
        const inside = (numbers, count) => numbers.some((n) => n < count) ? numbers.filter((n) => n < count) : [0];
        this.channels = inside(numbersOf(byId("channels").value), axes.channels);
        this.frames = inside(this.app.frames(), axes.frames);
        const [x0, x1] = this.range ?? [0, everything];
        const columns = Math.round(byId("plot").clientWidth * devicePixelRatio) || 1000;
        this.leaveOutFar(columns, Math.min(x1, module.nx - 1) - x0 + 1);
        const [c0, c1, f0, f1] = [this.channels[0], this.channels.at(-1), this.frames[0], this.frames.at(-1)];
        this.app.live.look(view, module.name, [x0, x1, ...axes.box(c0, c1, f0, f1)], columns, this.rowsBetween(), (m) => this.take(m));
        this.lookAtRegions();
    }

    rowsBetween() { return (this.channels.at(-1) - this.channels[0] + 1) * (this.frames.at(-1) - this.frames[0] + 1); }

    // One view brings all rows from the first to the last, up to a limit: what is too far away goes, and the page says so.
    leaveOutFar(columns, width) {
        const out = [], perRow = Math.min(columns, width);
        const tooMany = (rows) => rows > most.rows || rows * perRow > most.elements || rows * width > most.covered;
        while (tooMany(this.rowsBetween()) && this.channels.length + this.frames.length > 2) {
            const [word, list] = this.channels.length > 1 ? ["channel", this.channels] : ["frame", this.frames];
            out.unshift(`${word} ${list.pop()}`);
        }
        byId("spectranote").textContent = out.length ? `Too far from the others to be shown with them: ${out.join(", ")}` : "";
    }

    take(message) {
        const height = message.y1 - message.y0 + 1;
        this.head = message;
        this.series = [];
        if (!message.rows)
            byId("spectranote").textContent = nothingThere;
        else if (byId("spectranote").textContent === nothingThere)
            byId("spectranote").textContent = "";
        for (const frame of this.frames)
            for (const channel of this.channels) {
                const {y, t} = this.axes.place(channel, frame);
                const row = (t - message.t0) * height + y - message.y0;
                if (row >= 0 && row < message.rows)
                    this.series.push({channel, frame, y, t, values: message.values.subarray(row * message.columns, (row + 1) * message.columns)});
            }
        this.tellLines();
        this.draw();
    }

    // Which line is which; what was asked for and is not there is not among them.
    tellLines() {
        const texts = this.series.map((s) => `channel ${s.channel}, frame ${s.frame}`), told = texts.join();
        if (this.told === told)
            return;
        this.told = told;
        byId("legend").replaceChildren(...texts.map((textContent, i) => {
            const name = Object.assign(document.createElement("span"), {textContent});
            name.style.color = hues[i % hues.length];
            return name;
        }));
    }

    energy(channel) { return numberOf("offset", 0) + numberOf("gain", 1) * channel; }
    channel(energy) { return (energy - numberOf("offset", 0)) / numberOf("gain", 1); }

    draw() {
        const head = this.head;
        if (!head || !this.shown)
            return;
        const scale = scales[byId("scale").value];
        const xs = Float64Array.from({length: head.columns}, (_, i) => this.energy(firstBin(head, i)));
        this.data = [xs, ...this.series.map((s) => Array.from(s.values, (v) => Number.isNaN(v) ? null : scale.to(v)))];
        const box = byId("plot"), width = box.clientWidth || 600;
        const key = [this.series.length, byId("scale").value, style("--ink")].join();
        if (this.plot && this.plotKey === key) {
            if (this.plot.width !== width)
                this.plot.setSize({width, height: 360});
            this.plot.setData(this.data);
            return;
        }
        this.plot?.destroy();
        this.plotKey = key;
        const axis = {stroke: style("--ink"), grid: {stroke: style("--line"), width: 1}, ticks: {stroke: style("--line"), width: 1}};
        this.plot = new uPlot({
            width, height: 360, scales: {x: {time: false}}, legend: {show: false},
            axes: [axis, {...axis, size: 70, values: (u, ticks) => tickTexts(ticks.map(scale.from))}],
            series: [{}, ...this.series.map((s, i) => ({stroke: hues[i % hues.length], width: 1, points: {show: false}, paths: bins}))],
            cursor: {drag: {x: true, y: false, setScale: false}},
            hooks: {setSelect: [(u) => this.selected(u)], setCursor: [(u) => this.readOut(u)], draw: [(u) => this.drawLines(u)]},
        }, this.data, box);
        this.plot.over.addEventListener("dblclick", () => this.zoom(null));
        this.plot.over.addEventListener("wheel", (event) => {
            event.preventDefault();
            this.zoomBy(event.deltaY < 0 ? 0.7 : 1 / 0.7, this.channel(this.plot.posToVal(event.offsetX, "x")));
        });
    }

    selected(u) {
        if (u.select.width < 3)
            return;
        const ends = [u.posToVal(u.select.left, "x"), u.posToVal(u.select.left + u.select.width, "x")].map((e) => this.channel(e));
        u.setSelect({left: 0, width: 0, top: 0, height: 0}, false);
        this.zoom([Math.floor(Math.min(...ends)), Math.ceil(Math.max(...ends))]);
    }

    shownRange() { return this.head ? [this.head.x0, this.head.x1] : [0, 0]; }

    zoom(range) {
        const last = this.head ? this.head.nx - 1 : Infinity;
        this.range = range && [Math.max(0, Math.min(range[0], last)), Math.max(0, Math.min(range[1], last))];
        this.look();
    }

    zoomBy(factor, centre) {
        const [a, b] = this.shownRange(), middle = centre ?? (a + b) / 2;
        const range = [Math.round(middle - (middle - a) * factor), Math.round(middle + (b - middle) * factor)];
        if (range[1] > range[0])
            this.zoom(range);
    }

    pan(part) {
        if (!this.head)
            return;
        const [a, b] = this.shownRange();
        const by = Math.max(-a, Math.min(Math.round((b - a + 1) * part), this.head.nx - 1 - b));
        this.zoom([a + by, b + by]);
    }

    readOut(u) {
        const i = u.cursor.idx;
        if (i === null || i === undefined || !this.head)
            return;
        const channel = firstBin(this.head, i), many = this.head.x1 - this.head.x0 + 1 > this.head.columns;
        const counts = this.series.map((s) => `${s.channel}${this.frames.length > 1 ? "/" + s.frame : ""}: ${short(s.values[i])}`).join("  ");
        byId("readout").textContent = `channel ${channel}${many ? "… (maximum)" : ""}  energy ${short(this.energy(channel))}  ${counts}`;
    }

    drawLines(u) {
        const {ctx, bbox} = u;
        ctx.save();
        ctx.textAlign = "left";
        let row = 0;
        ctx.font = `${11 * devicePixelRatio}px sans-serif`;
        byId("elements").value.split(/[ ,]+/).forEach((element, i) => {
            ctx.strokeStyle = ctx.fillStyle = hues[(i + 1) % hues.length];
            for (const [name, energy] of Object.entries(elementLines[element] ?? {})) {
                const x = u.valToPos(energy, "x", true);
                if (x < bbox.left || x > bbox.left + bbox.width)
                    continue;
                ctx.setLineDash([4, 4]);
                ctx.beginPath();
                ctx.moveTo(x, bbox.top);
                ctx.lineTo(x, bbox.top + bbox.height);
                ctx.stroke();
                ctx.fillText(`${element} ${name}`, x + 3, bbox.top + (12 + 12 * (row++ % 6)) * devicePixelRatio);
            }
        });
        ctx.restore();
    }

    // ---- regions: their own bins come whole, whatever the zoom is

    addRegion(from, to) {
        if (this.regions.length >= mostRegions || to < from || !this.series.length || to - from + 1 > most.columns - 2 * sideBins)
            return;
        const {channel, frame, y, t} = this.series[0];
        this.regions.push({from, to, channel, frame, y, t});
        this.lookAtRegions();
        this.showRegions();
    }

    forgetRegions() { this.leaveRegions(); this.regions = []; this.showRegions(); }
    leaveRegions() { this.regions.forEach((_, i) => this.app.live.leave(firstRegion + i)); }

    lookAtRegions() {
        const module = this.app.module();
        if (!module) // it has gone
            return;
        this.regions.forEach((r, i) => {
            const a = Math.max(r.from - sideBins, 0), b = r.to + sideBins;
            this.app.live.look(firstRegion + i, module.name, [a, b, r.y, r.y, r.t, r.t], b - a + 1, 1, (m) => {
                r.result = sumOf(m, r); // none while the bins are not there, or not all of them
                this.showRegions();
            });
        });
    }

    showRegions() {
        byId("regions").tBodies[0].replaceChildren(...this.regions.map((r, i) => {
            const row = document.createElement("tr");
            const cells = [`${r.from}–${r.to}`, `${r.channel}, ${r.frame}`, short(r.result?.sum), short(r.result?.net), short(r.result?.error)];
            cells.forEach((text) => { row.insertCell().textContent = text; });
            const button = document.createElement("button");
            button.textContent = "×";
            button.addEventListener("click", () => {
                this.leaveRegions();
                this.regions.splice(i, 1);
                this.lookAtRegions();
                this.showRegions();
            });
            row.insertCell().append(button);
            return row;
        }));
    }

    saves() { return this.app.module() && this.head?.rows ? ["csv", "png"] : []; }

    csv() {
        const head = this.head;
        const rows = [["channel", "energy", ...this.series.map((s) => `channel ${s.channel} frame ${s.frame}`)]];
        for (let i = 0; i < head.columns; ++i) {
            const channel = firstBin(head, i);
            rows.push([channel, this.energy(channel), ...this.series.map((s) => s.values[i])]);
        }
        saveCsv(`${this.app.module().name}.csv`, rows);
    }

    png() { savePng(`${this.app.module().name}.png`, this.plot.ctx.canvas); }
    key(event) {
        const moves = {ArrowLeft: () => this.pan(-0.25), ArrowRight: () => this.pan(0.25), "+": () => this.zoomBy(0.5),
            "-": () => this.zoomBy(2), f: () => this.zoom(null), r: () => this.addRegion(...this.shownRange()), l: () => {
                byId("scale").selectedIndex = (byId("scale").selectedIndex + 1) % 3;
                this.draw();
            }};
        moves[event.key]?.();
        return event.key in moves;
    }
}

// The counts from..to, less a straight line through the means of the bins beside them, as far as there are some. The
// error is that of counting, in the region and in the bins that the line comes from.
export function sumOf(message, {from, to}) {
    const at = (x) => message.values[x - message.x0];
    let sum = 0;
    const last = Math.min(to, message.nx - 1);
    if (last < from || message.columns !== message.x1 - message.x0 + 1)
        return undefined;
    for (let x = from; x <= last; ++x)
        sum += at(x);
    const sides = [[message.x0, from - 1], [last + 1, message.x1]].filter(([a, b]) => b >= a).map(([a, b]) => {
        let total = 0;
        for (let x = a; x <= b; ++x)
            total += at(x);
        return {middle: (a + b) / 2, mean: total / (b - a + 1), variance: total / (b - a + 1) ** 2};
    });
    const width = last - from + 1, middle = (from + last) / 2;
    // How much of each mean the line has in the region's middle; of one side alone it is level.
    const [left, right] = sides, part = right ? (right.middle - middle) / (right.middle - left.middle) : 1;
    const parts = [part, 1 - part];
    let background = 0, variance = sum;
    sides.forEach((side, i) => {
        background += width * parts[i] * side.mean;
        variance += (width * parts[i]) ** 2 * side.variance;
    });
    return {sum, net: sum - background, error: Math.sqrt(Math.max(variance, 0))};
}
