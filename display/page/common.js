// What the views share: element access, lists of numbers, scales, colours, saving.

export const byId = (id) => document.getElementById(id);
export const everything = 4294967295; // as the end of an axis
export const hues = ["#1f6feb", "#d1242f", "#1a7f37", "#9a6700", "#8250df", "#0f8b8d", "#bf3989", "#57606a"];

export function style(name) {
    return getComputedStyle(document.documentElement).getPropertyValue(name).trim();
}

// "0-3,7" -> [0, 1, 2, 3, 7]; what is no number is left out.
export function numbersOf(text, most = 64) {
    const found = [];
    for (const piece of text.split(/[ ,]+/)) {
        const [, first, last] = piece.match(/^(\d+)(?:-(\d+))?$/) ?? [];
        for (let n = Number(first); n <= Number(last ?? first) && found.length < most; ++n)
            found.push(n);
    }
    return found.length ? [...new Set(found)].sort((a, b) => a - b) : [0];
}

// Which axes of a module are channels and frames: the cards' histograms have the channels along t.
export function layout(module) {
    const turned = module.name.startsWith("plr3_hist");
    return {
        channels: turned ? module.nt : module.ny,
        frames: turned ? module.ny : module.nt,
        box: (c0, c1, f0, f1) => turned ? [f0, f1, c0, c1] : [c0, c1, f0, f1], // y0, y1, t0, t1
        place: (channel, frame) => turned ? {y: frame, t: channel} : {y: channel, t: frame},
    };
}

export const scales = {
    linear: {to: (y) => y, from: (y) => y},
    log: {to: (y) => Math.log10(Math.max(y, 0.5)), from: (y) => 10 ** y}, // an empty bin stands at half a count
    sqrt: {to: (y) => Math.sign(y) * Math.sqrt(Math.abs(y)), from: (y) => Math.sign(y) * y * y},
};

export function short(value) {
    if (!Number.isFinite(value))
        return "–";
    return Math.abs(value) >= 1e6 || (value !== 0 && Math.abs(value) < 1e-3) ? value.toExponential(3)
        : String(Number(value.toPrecision(7)));
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
