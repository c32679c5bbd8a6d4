// What the views share: element access, lists of numbers, scales, colours, saving.

export const byId = (id) => document.getElementById(id);
export const everything = 4294967295; // as the end of an axis
// What the display sends of one view, and how much of a module a view may cover; it hangs up on more columns or rows.
export const most = {columns: 65536, rows: 4096, elements: 2 << 20, covered: 16 << 20};
export const hues = ["#1f6feb", "#d1242f", "#1a7f37", "#9a6700", "#8250df", "#0f8b8d", "#bf3989", "#57606a"];

export function style(name) {
    return getComputedStyle(document.documentElement).getPropertyValue(name).trim();
}

// The number that was typed, this one instead of what is none; such a field is marked by its pattern.
export function numberOf(id, otherwise) {
    return byId(id).validity.valid ? Number(byId(id).value) : otherwise;
}

// The index that was typed: what is none is 0 or the nearest one.
export function indexOf(id) {
    return Math.min(Math.max(Math.floor(Number(byId(id).value)) || 0, 0), everything);
}

// "0-3,7" -> [0, 1, 2, 3, 7]; what is no number is left out.
export function numbersOf(text, count = 64) {
    const found = [];
    for (const piece of text.split(/[ ,]+/)) {
        const [, first, last] = piece.match(/^(\d+)(?:-(\d+))?$/) ?? [];
        for (let n = Number(first); n <= Number(last ?? first) && found.length < count; ++n)
            found.push(n);
    }
    return found.length ? [...new Set(found)].sort((a, b) => a - b) : [0];
}

// Which axes of a module are channels and frames: the cards' histograms have the channels along t.
export function layout(module) {
    const turned = module.name.startsWith("plr3_hist");
    return {
        turned,
        channels: turned ? module.nt : module.ny,
        frames: turned ? module.ny : module.nt,
        box: (c0, c1, f0, f1) => turned ? [f0, f1, c0, c1] : [c0, c1, f0, f1], // y0, y1, t0, t1
        place: (channel, frame) => turned ? {y: frame, t: channel} : {y: channel, t: frame},
    };
}

// The first of the module's bins that a column shows the maximum of.
export function firstBin(head, column) {
    return head.x0 + Math.floor((head.x1 - head.x0 + 1) * column / head.columns);
}

export const scales = {
    linear: {to: (y) => y, from: (y) => y},
    log: {to: (y) => Math.log10(Math.max(y, 0.5)), from: (y) => 10 ** y}, // an empty bin stands at half a count
    sqrt: {to: (y) => Math.sign(y) * Math.sqrt(Math.abs(y)), from: (y) => Math.sign(y) * y * y},
};

// Counts to the last digit, other numbers to seven.
export function short(value) {
    if (!Number.isFinite(value))
        return "–";
    return String(Number.isSafeInteger(value) ? value : Number(value.toPrecision(7)));
}

// The words beside an axis' ticks: as many digits as tell a tick from its neighbour, ten times over.
export function tickTexts(ticks) {
    return ticks.map((tick, i) => {
        const step = Math.abs(tick - (ticks[i - 1] ?? ticks[i + 1]));
        const digits = Math.ceil(Math.log10(Math.abs(tick) / step)) + 2;
        return short(Number(tick.toPrecision(Math.min(Math.max(digits || 3, 3), 15))));
    });
}

// A path for uPlot: each bin as wide as the way to its neighbours, its channel in the middle.
export function bins(plot, series, first, last) {
    const [xs, ys] = [plot.data[0], plot.data[series]], stroke = new Path2D();
    const edge = (i) => plot.valToPos(xs.length < 2 ? xs[0] + i - 0.5
        : i <= 0 ? (3 * xs[0] - xs[1]) / 2 : i >= xs.length ? (3 * xs.at(-1) - xs.at(-2)) / 2 : (xs[i - 1] + xs[i]) / 2, "x", true);
    let drawn = false;
    for (let i = first; i <= last; ++i) {
        const has = ys[i] !== null && ys[i] !== undefined, y = has && plot.valToPos(ys[i], "y", true);
        if (has) {
            if (drawn)
                stroke.lineTo(edge(i), y);
            else
                stroke.moveTo(edge(i), y);
            stroke.lineTo(edge(i + 1), y);
        }
        drawn = has;
    }
    return {stroke, fill: null, clip: null, band: null, gaps: null, flags: 1};
}

export function save(name, blob) {
    const link = document.createElement("a");
    link.href = URL.createObjectURL(blob);
    link.download = name;
    link.click();
    setTimeout(() => URL.revokeObjectURL(link.href), 10000);
}

export function saveCsv(name, rows) {
    save(name, new Blob([rows.map((row) => row.join(",")).join("\n") + "\n"], {type: "text/csv"}));
}

export function savePng(name, canvas) {
    canvas.toBlob((blob) => save(name, blob), "image/png");
}

// Sets the words of a <select>, and keeps the choice where it is still there.
export function offer(select, words, preferred = () => false) {
    if (words.join("\n") === Array.from(select.options, (o) => o.value).join("\n"))
        return;
    const before = select.value;
    select.replaceChildren(...words.map((word) => new Option(word, word)));
    select.value = words.includes(before) ? before : words.find(preferred) ?? words[0] ?? "";
}
