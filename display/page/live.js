// The connection to the display: asks for views, hands on what comes. It connects again by itself.
import {most} from "./common.js";

const headBytes = 16 + 64; // of a view: the browser's part, then the view's own

// A message's parts; `values` has rows x columns numbers.
function unpack(buffer) {
    const at = new DataView(buffer);
    const head = {view: at.getUint32(4, true), lost: at.getUint32(8, true), asked: at.getUint32(12, true), readAt: at.getFloat64(16, true)};
    const names = ["size", "columns", "rows", "number", "x0", "x1", "y0", "y1", "t0", "t1", "nx", "ny", "nt"];
    names.forEach((name, i) => { head[name] = at.getUint32(24 + 4 * i, true); });
    const count = head.columns * head.rows;
    // Doubles begin at a multiple of eight, as the head is made.
    head.values = head.size === 8 ? new Float64Array(buffer, headBytes, count) : new Float32Array(buffer, headBytes, count);
    return head;
}

export class Live {
    constructor(onText, onState) {
        this.onText = onText;
        this.onState = onState;
        this.wanted = new Map(); // view number -> {request, take, asked, shown, waiting}
        this.asked = 0;          // requests for views on this connection
        this.paused = false;
        this.lost = 0;
        this.ages = []; // ms between reading and arrival, of the last messages
        this.connect();
    }

    connect() {
        this.socket = new WebSocket(`ws://${location.host}/live`);
        this.socket.binaryType = "arraybuffer";
        this.socket.onopen = () => {
            this.onState("live");
            this.asked = 0;
            for (const [number, wanted] of this.wanted)
                this.ask(number, wanted);
        };
        this.socket.onmessage = (event) => this.take(event.data);
        this.socket.onclose = () => {
            this.onState("connection lost");
            setTimeout(() => this.connect(), 1000);
        };
    }

    take(data) {
        if (typeof data === "string") {
            this.onText(JSON.parse(data));
            return;
        }
        const message = unpack(data);
        this.lost = message.lost;
        this.ages.push(Date.now() - message.readAt);
        if (this.ages.length > 200)
            this.ages.shift();
        const wanted = this.wanted.get(message.view);
        if (wanted?.asked !== message.asked)
            return; // of what was looked at before
        wanted.waiting = message;
        if (!this.paused || !wanted.shown)
            this.show(wanted);
    }

    show(wanted) {
        const {waiting} = wanted;
        Object.assign(wanted, {shown: true, waiting: null});
        if (waiting)
            wanted.take(waiting);
    }

    // A paused page shows what is asked for anew, once. What comes meanwhile is not sent again: the newest is kept.
    pause(paused) {
        this.paused = paused;
        if (!paused)
            this.wanted.forEach((wanted) => this.show(wanted));
    }

    ask(number, wanted) {
        if (this.socket.readyState !== WebSocket.OPEN)
            return;
        wanted.asked = ++this.asked;
        this.socket.send(`view ${number} ${wanted.request}`);
    }

    // Box: [x0, x1, y0, y1, t0, t1]; no more columns and rows are sent than are asked for.
    look(number, module, box, columns, rows, take) {
        const held = (n, limit) => Math.min(Math.max(n, 1), limit);
        const request = [encodeName(module), ...box, held(columns, most.columns), held(rows, most.rows)].join(" ");
        const before = this.wanted.get(number);
        if (before?.request === request) {
            before.take = take;
            return;
        }
        this.wanted.set(number, {request, take, asked: 0, shown: false, waiting: null});
        this.ask(number, this.wanted.get(number));
    }

    leave(number) {
        if (this.wanted.delete(number) && this.socket.readyState === WebSocket.OPEN)
            this.socket.send(`close ${number}`);
    }
}

function encodeName(name) {
    return Array.from(new TextEncoder().encode(name),
        (byte) => /[\w-]/.test(String.fromCharCode(byte)) ? String.fromCharCode(byte)
            : "%" + byte.toString(16).toUpperCase().padStart(2, "0")).join("");
}
