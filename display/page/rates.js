// Rates of the channels of a pulse processor, as seen and corrected for dead time, and what was lost in its last run.
import {byId, everything, indexOf, numberOf, offer, saveCsv, short} from "./common.js";

const view = 5, scalers = 9;
const fates = ["whole", "incomplete", "missing", "no place", "kernel", "late", "repeated", "malformed"];
const rateHeads = ["channel", "time s", "seen /s", "corrected /s", "good /s", "window 0 /s", "window 1 /s"];
const lossHeads = ["path", "channel", ...fates];

// The rate before a paralysable dead time (seconds) that is seen as this one; not a number beyond its peak.
export function correctedRate(seen, deadTime) {
    if (seen * deadTime * Math.E > 1)
        return NaN;
    // x exp(-x) is what is seen, x the rate in dead times: Newton's steps, from the side where they never overshoot.
    let x = 0;
    for (let i = 0; i < 60; ++i)
        x += x < 1 ? (seen * deadTime * Math.exp(x) - x) / (1 - x) : 0;
    return deadTime === 0 ? seen : x / deadTime;
}

// [path, channel, count of each fate] of every channel in the metrics' text.
export function losses(metrics) {
    const found = new Map();
    for (const [, labels, value] of metrics.matchAll(/^kestrel_(?:frames|lost_packets)_total\{(.*)\} (\d+)$/gm)) {
        const {path, channel, fate} = Object.fromEntries(Array.from(labels.matchAll(/(\w+)="([^"]*)"/g), ([, k, v]) => [k, v]));
        const key = `${path} ${channel}`;
        if (!fates.includes(fate))
            continue;
        if (!found.has(key))
            found.set(key, [Number(path), Number(channel), ...fates.map(() => NaN)]);
        found.get(key)[2 + fates.indexOf(fate)] = Number(value);
    }
    return Array.from(found.values());
}

export class Rates {
    constructor(app) {
        this.app = app;
        this.lost = []; // rows of the lower table
        for (const id of ["scalers", "scalerframe", "deadtime", "tick"])
            byId(id).addEventListener("change", () => this.look());
    }

    show() { this.shown = true; this.look(); }
    hide() { this.shown = false; this.app.live.leave(view); }
    select() {}

    modules(list) {
        offer(byId("scalers"), list.filter((m) => m.nx === scalers && m.name.includes("scaler") && !m.name.includes("status")).map((m) => m.name));
        if (this.shown && !this.head)
            this.look();
    }

    metrics(text) {
        this.lost = losses(text);
        this.draw();
    }

    look() {
        const name = byId("scalers").value, frame = indexOf("scalerframe");
        if (this.shown && name)
            this.app.live.look(view, name, [0, everything, 0, everything, frame, frame], scalers, 4096, (m) => {
                this.head = m;
                this.draw();
            });
        this.draw();
    }

    rows() {
        const tick = numberOf("tick", NaN) * 1e-9, dead = numberOf("deadtime", NaN) * 1e-9;
        return Array.from({length: this.head?.rows ?? 0}, (_, channel) => {
            const s = this.head.values.subarray(channel * scalers, (channel + 1) * scalers);
            const live = (s[0] - s[1]) * tick, seen = s[3] / live;
            return [channel, s[0] * tick, seen, correctedRate(seen, dead), s[4] / live, s[5] / live, s[6] / live];
        });
    }

    draw() {
        if (!this.shown)
            return;
        byId("ratenote").textContent = this.head?.rows ? `Frame ${this.head.t0} of ${this.head.nt}` : "";
        fill("ratetable", rateHeads, this.rows(), () => false);
        fill("losstable", lossHeads, this.lost, (value, i) => i > 2 && value > 0);
    }

    saves() { return this.head?.rows || this.lost.length ? ["csv"] : []; }
    csv() { saveCsv("rates.csv", [rateHeads, ...this.rows(), lossHeads, ...this.lost]); }
    key() { return false; }
}

function fill(id, heads, rows, isLost) {
    const head = document.createElement("tr");
    for (const text of heads)
        head.append(Object.assign(document.createElement("th"), {textContent: text}));
    byId(id).tHead.replaceChildren(head);
    byId(id).tBodies[0].replaceChildren(...rows.map((values) => {
        const row = document.createElement("tr");
        values.forEach((value, i) => {
            const cell = row.insertCell();
            cell.textContent = short(value);
            cell.classList.toggle("lost", isLost(value, i));
        });
        return row;
    }));
}
