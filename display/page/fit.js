// A module of peak-fit results beside its spectra: the spectrum of a point, the fitted model over it, what is left.
import uPlot from "./uPlot.esm.js";
import {bins, byId, everything, hues, indexOf, most, offer, saveCsv, savePng, short, style} from "./common.js";

const spectrumView = 3, resultView = 4;
const shapes = ["posn", "height", "sigma", "lor_wid", "lor_frac"];

// The model at a channel: peaks of Gaussians with Lorentzian tails.
export function modelAt(channel, peaks) {
    let sum = 0;
    for (const p of peaks) {
        const d = channel - p.posn;
        sum += p.height * (1 - p.lor_frac) * Math.exp(-d * d / (2 * p.sigma * p.sigma));
        if (p.lor_frac > 0)
            sum += p.height * p.lor_frac / (d * d / (p.lor_wid * p.lor_wid) + 1);
    }
    return sum;
}

export class Fit {
    constructor(app) {
        this.app = app;
        for (const id of ["fitresult", "fitspectra", "fitpoint"])
            byId(id).addEventListener("change", () => this.look());
    }

    show() { this.shown = true; this.look(); }
    hide() { this.shown = false; [spectrumView, resultView].forEach((v) => this.app.live.leave(v)); }
    select() { this.look(); }

    modules(list) {
        offer(byId("fitresult"), list.filter((m) => m.labels.includes("posn[0]")).map((m) => m.name));
        offer(byId("fitspectra"), list.filter((m) => m.nx >= 16 && m.nx <= most.columns && !m.labels.includes("posn[0]")).map((m) => m.name),
            (name) => name === this.app.module()?.name);
        if (this.shown && !this.head)
            this.look();
    }

    look() {
        const result = this.app.named(byId("fitresult").value), spectra = this.app.named(byId("fitspectra").value);
        if (!this.shown || !result || !spectra)
            return;
        const point = Math.min(indexOf("fitpoint"), result.nx - 1);
        const row = Math.min(point, spectra.ny * spectra.nt - 1), y = row % spectra.ny, t = Math.floor(row / spectra.ny);
        byId("fitnote").textContent = `Point ${point} of ${result.nx}: row y ${y}, t ${t} of the spectra`;
        this.labels = result.labels;
        this.app.live.look(resultView, result.name, [point, point, 0, 0, 0, everything], 1, result.nt, (m) => {
            this.values = new Map(this.labels.map((label, i) => [label, m.values[i]]));
            this.draw();
        });
        this.app.live.look(spectrumView, spectra.name, [0, everything, y, y, t, t], most.columns, 1, (m) => {
            this.head = m;
            this.draw();
        });
    }

    peaks() {
        const found = [];
        while (this.values.has(`posn[${found.length}]`))
            found.push(Object.fromEntries(shapes.map((s) => [s, this.values.get(`${s}[${found.length}]`) ?? 0])));
        return found.filter((p) => p.posn >= 0);
    }

    draw() {
        if (!this.head || !this.values || !this.shown)
            return;
        const peaks = this.peaks(), counts = this.head.values;
        const wide = Math.max(...peaks.map((p) => 8 * p.sigma), 8);
        const from = Math.max(0, Math.floor(Math.min(...peaks.map((p) => p.posn), counts.length) - wide));
        const to = Math.min(counts.length - 1, Math.ceil(Math.max(...peaks.map((p) => p.posn), 0) + wide));
        const first = peaks.length ? from : 0, last = peaks.length ? to : counts.length - 1;
        const xs = Array.from({length: last - first + 1}, (_, i) => first + i);
        const measured = xs.map((x) => counts[x]), model = xs.map((x) => modelAt(x, peaks));
        // In standard deviations of what the model expects.
        const residuals = xs.map((_, i) => (measured[i] - model[i]) / Math.sqrt(Math.max(model[i], 1)));
        this.data = {xs, measured, model, residuals};
        this.upper = this.redraw(this.upper, "fitplot", 300, [xs, measured, model]);
        this.lower = this.redraw(this.lower, "residualplot", 140, [xs, residuals]);
        byId("fitvalues").replaceChildren(...Array.from(this.values).filter(([label]) => !label.includes("err")).map(([label, value]) => {
            const row = document.createElement("tr"), error = this.values.get(label.replace("[", "_err["));
            row.insertCell().textContent = label;
            row.insertCell().textContent = short(value) + (label.includes("[") && error !== undefined ? ` ± ${short(error)}` : "");
            return row;
        }));
    }

    redraw(plot, id, height, data) {
        const width = byId(id).clientWidth || 600;
        if (plot && plot.width === width) {
            plot.setData(data);
            return plot;
        }
        plot?.destroy();
        const axis = {stroke: style("--ink"), grid: {stroke: style("--line"), width: 1}};
        const series = data.length === 3 ? [{stroke: hues[0], width: 1, paths: bins}, {stroke: hues[1], width: 1}]
            : [{stroke: hues[4], width: 1}];
        return new uPlot({width, height, scales: {x: {time: false}}, axes: [axis, {...axis, size: 70}],
            series: [{}, ...series.map((s) => ({...s, points: {show: false}}))]}, data, byId(id));
    }

    saves() { return this.data ? ["csv", "png"] : []; }

    csv() {
        const {xs, measured, model, residuals} = this.data;
        saveCsv("fit.csv", [["channel", "counts", "model", "residual"], ...xs.map((x, i) => [x, measured[i], model[i], residuals[i]])]);
    }

    png() { savePng("fit.png", this.upper.ctx.canvas); }
    key() { return false; }
}
