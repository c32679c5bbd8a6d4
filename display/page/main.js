// The page: modules, tabs, keys. Each tab's view is a class of its own: show, hide, select, key, and csv and
// png where saves() names them: what is shown now may be saved so.
import {byId, everything, numbersOf} from "./common.js";
import {Fit} from "./fit.js";
import {Picture} from "./image.js";
import {Live} from "./live.js";
import {Overview} from "./overview.js";
import {Rates} from "./rates.js";
import {Spectra} from "./spectra.js";

const progressView = 6; // what cards have reached in their run

class App {
    constructor() {
        this.list = [];
        this.chosen = null;
        this.live = new Live((text) => this.take(text), (state) => { this.state = state; this.tellState(); });
        const server = {show() {}, hide() {}, select() {}, saves: () => [], key: () => false};
        this.tabs = {spectra: new Spectra(this), overview: new Overview(this), image: new Picture(this), fit: new Fit(this),
            rates: new Rates(this), server};
        byId("tabs").replaceChildren(...Object.keys(this.tabs).map((name, i) => {
            const button = document.createElement("button");
            Object.assign(button, {textContent: `${name} (${i + 1})`, id: `tab-${name}`});
            button.setAttribute("role", "tab");
            button.addEventListener("click", () => this.showTab(name));
            return button;
        }));
        byId("filter").addEventListener("input", () => this.showModules());
        byId("pause").addEventListener("click", () => this.pause());
        for (const form of ["png", "csv"])
            byId(form).addEventListener("click", () => this.save(form));
        document.addEventListener("keydown", (event) => this.key(event));
        document.querySelectorAll("form").forEach((form) => form.addEventListener("submit", (event) => event.preventDefault()));
        matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => this.tab().show());
        setInterval(() => this.tellState(), 1000);
        this.showTab("spectra");
    }

    tab() { return this.tabs[this.open]; }
    module() { return this.named(this.chosen); }
    named(name) { return this.list.find((m) => m.name === name); }

    // The frames that are asked for; "newest" is the last one that a run of cards has ended.
    frames() { return byId("frames").value.trim() === "newest" ? [this.newest ?? 0] : numbersOf(byId("frames").value); }

    followRun() {
        const progress = this.list.find((m) => m.name.startsWith("plr3_progress"));
        if (!progress)
            return;
        this.live.look(progressView, progress.name, [0, 0, 0, everything, 0, 0], 1, 64, (m) => {
            if (!m.rows)
                return;
            const newest = Math.max(0, Math.min(...m.values) - 1);
            const moved = newest !== this.newest && byId("frames").value.trim() === "newest";
            this.newest = newest;
            if (moved)
                this.tab().look?.();
        });
    }

    showTab(name) {
        this.tabs[this.open]?.hide();
        this.open = name;
        for (const other of Object.keys(this.tabs)) {
            byId(other).classList.toggle("shown", other === name);
            byId(`tab-${other}`).setAttribute("aria-selected", other === name);
        }
        byId("saved").textContent = "";
        this.tab().show();
    }

    take(text) {
        if (text.type === "modules")
            this.takeModules(text.modules);
        else if (text.type === "server")
            this.takeServer(text);
        else if (text.type === "announced")
            this.takeAnnouncements(text.last);
    }

    // What was announced before this page came is no news.
    takeAnnouncements(last) {
        const tabs = {display1d: "spectra", display2d: "image"};
        const news = last.filter((a) => a.number > (this.announced ?? Infinity) && tabs[a.how] && this.named(a.module));
        this.announced = last.at(-1)?.number ?? 0;
        if (news.length && byId("follow").checked)
            this.choose(news.at(-1).module, tabs[news.at(-1).how]);
    }

    takeModules(list) {
        const before = JSON.stringify([this.module()?.nx, this.module()?.ny, this.module()?.nt]);
        this.list = list;
        this.followRun();
        this.tabs.fit.modules(list);
        this.tabs.rates.modules(list);
        this.showModules();
        if (!this.module() && list.length && !this.chosen)
            this.choose((list.find((m) => m.nx >= 16) ?? list[0]).name);
        else if (this.module() && before !== JSON.stringify([this.module().nx, this.module().ny, this.module().nt]))
            this.tab().select();
    }

    takeServer(text) {
        byId("status").textContent = text.status;
        const running = text.status.match(/^running (.*)$/m)?.[1], line = text.status.match(/^line (.*)$/m)?.[1];
        const progress = text.status.match(/^progress (.*)$/m)?.[1];
        byId("running").textContent = !text.answers ? text.status
            : running === "nothing" ? "idle" : [line, progress, running].filter(Boolean).join("  ·  ");
        this.tabs.rates.metrics(text.metrics);
    }

    tellState() {
        const ages = this.live.ages.slice(-20).sort((a, b) => a - b);
        const age = ages.length ? `  age ${Math.round(ages[ages.length >> 1])} ms` : "";
        byId("link").textContent = this.state + (this.live.paused ? "  paused" : "") + age +
            (this.live.lost ? `  ${this.live.lost} updates skipped (no data lost)` : "");
        byId("link").classList.toggle("bad", this.state !== "live");
    }

    showModules() {
        const wanted = byId("filter").value.toLowerCase();
        byId("modules").replaceChildren(...this.list.filter((m) => `${m.name} ${m.title}`.toLowerCase().includes(wanted)).map((m) => {
            const item = document.createElement("li"), button = document.createElement("button");
            const details = document.createElement("small");
            const changed = m.changed ? ` · changed ${new Date(m.changed).toLocaleTimeString()}` : "";
            details.textContent = `${m.nx} × ${m.ny} × ${m.nt}${m.title === m.name ? "" : "  " + m.title}${changed}`;
            button.append(m.name, details);
            button.setAttribute("aria-current", m.name === this.chosen);
            button.addEventListener("click", () => this.choose(m.name));
            item.append(button);
            return item;
        }));
    }

    choose(name, tab) {
        this.chosen = name;
        this.showModules();
        if (tab)
            this.showTab(tab);
        this.tab().select();
    }

    pause() {
        this.live.pause(!this.live.paused);
        this.tellState();
    }

    save(form) {
        const can = this.tab().saves().includes(form);
        byId("saved").textContent = can ? "" : `Nothing here to save as ${form.toUpperCase()}`;
        if (can)
            this.tab()[form]();
    }

    key(event) {
        const pressed = event.target.tagName;
        if (event.ctrlKey || event.altKey || event.metaKey || /^(INPUT|SELECT)$/.test(pressed) || (pressed === "BUTTON" && event.key === " "))
            return;
        const number = Number(event.key), names = Object.keys(this.tabs);
        const keys = {" ": () => this.pause(), p: () => this.save("png"), c: () => this.save("csv"), "/": () => byId("filter").focus()};
        if (number >= 1 && number <= names.length)
            this.showTab(names[number - 1]);
        else if (keys[event.key])
            keys[event.key]();
        else if (!this.tab().key(event))
            return;
        event.preventDefault();
    }
}

window.display = new App(); // whoever looks closer finds it here
