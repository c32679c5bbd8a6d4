// Rates of the channels of a pulse processor, as seen and corrected for dead time, and what was lost in its last run.
import {byId, everything, offer, saveCsv, short} from "./common.js";

const view = 5, scalers = 9;
const fates = ["whole", "incomplete", "missing", "no place", "kernel", "late", "repeated", "malformed"];

// The rate before a paralysable dead time (seconds) that is seen as this one; not a number beyond its peak.
export function correctedRate(seen, deadTime) {
    if (seen * deadTime * Math.E > 1)
        return NaN;
    let rate = seen;
    for (let i = 0; i < 60; ++i)
        rate = seen * Math.exp(rate * deadTime);
    return rate;
}

// {channel: {fate: count}} of the metrics' text.
export function losses(metrics) {
    const found = new Map();
    for (const [, labels, value] of metrics.matchAll(/^kestrel_(?:frames|lost_packets)_total\{(.*)\} (\d+)$/gm)) {
        const {channel, fate} = Object.fromEntries(Array.from(labels.matchAll(/(\w+)="([^"]*)"/g), ([, k, v]) => [k, v]));
        if (!found.has(channel))
            found.set(channel, {});
        found.get(channel)[fate] = Number(value);
    }
    return found;
}

export class Rates {
    constructor(app) {
        this.app = app;
        this.lost = new Map();
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
        const name = byId("scalers").value, frame = Number(byId("scalerframe").value) || 0;
        if (this.shown && name)
            this.app.live.look(view, name, [0, everything, 0, everything, frame, frame], scalers, 4096, (m) => {
                this.head = m;
                this.draw();
            });
        this.draw();
    }

    rows() {
        const count = Math.max(this.head?.rows ?? 0, this.lost.size ? Math.max(...Array.from(this.lost.keys(), Number)) + 1 : 0);
        const tick = (Number(byId("tick").value) || 12.5) * 1e-9, dead = (Number(byId("deadtime").value) || 0) * 1e-9;
        return Array.from({length: count}, (_, channel) => {
            const row = [channel], lost = this.lost.get(String(channel)) ?? {};
            if (this.head && channel < this.head.rows) {
                const s = this.head.values.subarray(channel * scalers, (channel + 1) * scalers);
                const live = (s[0] - s[1]) * tick, seen = s[3] / live;
                row.push(s[0] * tick, seen, correctedRate(seen, dead), s[4] / live, s[5] / live, s[6] / live);
            } else {
                row.push(NaN, NaN, NaN, NaN, NaN, NaN);
            }
            return [...row, ...fates.map((fate) => lost[fate] ?? NaN)];
        });
    }

    heads() { return ["channel", "time s", "seen /s", "corrected /s", "good /s", "window 0 /s", "window 1 /s", ...fates]; }

    draw() {
        if (!this.shown)
            return;
        const head = document.createElement("tr");
        for (const text of this.heads())
            head.append(Object.assign(document.createElement("th"), {textContent: text}));
        byId("ratetable").tHead.replaceChildren(head);
        byId("ratetable").tBodies[0].replaceChildren(...this.rows().map((values) => {
            const row = document.createElement("tr");
            values.forEach((value, i) => {
                const cell = row.insertCell();
                cell.textContent = short(value);
                cell.classList.toggle("lost", i > 7 && value > 0);
            });
            return row;
        }));
    }

    csv() { saveCsv("rates.csv", [this.heads(), ...this.rows()]); }
    png() {}
    key() { return false; }
}
