
"use strict";
// Whatever a report holds becomes text, and nothing else: no function here makes markup of a string.
// What a report's details need is built when they are opened.
(() => {
    const bins = 120; // of the timeline
    const mostRows = 12;
    const mostModes = 8;
    const mostLines = 4096;
    const byId = id => document.getElementById(id);
    const json = node => JSON.parse(node.textContent);
    const about = json(byId("about"));
    const reports = Array.from(document.querySelectorAll("script[data-report]"), json);

    // What steers, hides or turns the direction of a line is shown as its number.
    const plain = text => String(text).replace(/[\p{C}\u2028\u2029]/gu,
        c => c === "\t" || c === "\n" ? c : "\\u{" + c.codePointAt(0).toString(16) + "}");
    const oneLine = text => plain(text).replace(/\n/g, "\\n");
    const show = value => value === null || value === undefined ? "-"
        : typeof value === "boolean" ? (value ? "yes" : "no")
        : oneLine(typeof value === "object" ? JSON.stringify(value) : value);
    const size = bytes => bytes < 1000 ? bytes + " B"
        : bytes < 1e6 ? (bytes / 1e3).toFixed(1) + " kB" : (bytes / 1e6).toFixed(1) + " MB";
    const exact = bytes => Number(bytes).toLocaleString("en") + " bytes";
    const isObject = value => typeof value === "object" && value !== null && !Array.isArray(value);
    const part = (report, name) => isObject(report.report[name]) ? report.report[name] : {};

    const make = (name, text, ...children) => {
        const node = document.createElement(name);
        if (text) {
            node.textContent = text;
        }
        node.append(...children);
        return node;
    };
    const named = (className, node) => {
        node.className = className;
        return node;
    };
    const drawn = (name, attributes, ...children) => {
        const node = document.createElementNS("http://www.w3.org/2000/svg", name);
        for (const [key, value] of Object.entries(attributes)) {
            node.setAttribute(key, value);
        }
        node.append(...children);
        return node;
    };

    // --- the overview

    const group = key => {
        const groups = new Map();
        for (const report of reports) {
            const name = show(key(report));
            if (!groups.has(name)) {
                groups.set(name, []);
            }
            groups.get(name).push(report);
        }
        return Array.from(groups).sort((a, b) => b[1].length - a[1].length || (a[0] < b[0] ? -1 : 1));
    };
    const sum = group => group.reduce((bytes, report) => bytes + report.bytes, 0);
    const processOf = report => part(report, "request").process;
    const parse = time => /^\d{4}-\d\d-\d\dT[\d:.]+Z$/.test(time) ? Date.parse(time) : NaN;
    const timeOf = report => parse(report.report.time);

    const drawTimeline = () => {
        const timed = reports.filter(report => !Number.isNaN(timeOf(report)));
        if (timed.length === 0) {
            return;
        }
        const times = timed.map(timeOf);
        const first = times.reduce((a, b) => Math.min(a, b));
        const last = Math.max(times.reduce((a, b) => Math.max(a, b)), first + 1000);
        const all = group(processOf);
        const rows = all.slice(0, mostRows);
        if (all.length > mostRows) {
            rows.push([all.length - mostRows + " others", all.slice(mostRows).flatMap(row => row[1])]);
        }
        const left = 190, width = 1000, height = 22, bin = (width - left) / bins;
        const picture = drawn("svg", {viewBox: `0 0 ${width} ${rows.length * height + 24}`, role: "img"},
            drawn("title", {}, `${timed.length} reports of ${all.length} processes`));
        rows.forEach(([name, group], row) => {
            const base = (row + 1) * height;
            const counts = new Array(bins).fill(0);
            for (const time of group.map(timeOf).filter(time => !Number.isNaN(time))) {
                ++counts[Math.min(bins - 1, Math.floor((time - first) / (last - first) * bins))];
            }
            const most = Math.max(...counts);
            picture.append(drawn("text", {x: 0, y: base - 5}, (name.length > 24 ? name.slice(0, 23) + "…" : name) + " " + group.length),
                drawn("line", {x1: left, x2: width, y1: base, y2: base}));
            counts.forEach((n, i) => {
                if (n > 0) {
                    const tall = 4 + (height - 8) * n / most;
                    picture.append(drawn("rect", {x: left + i * bin, y: base - tall, width: bin - 1, height: tall},
                        drawn("title", {}, `${name}: ${n}`)));
                }
            });
        });
        const foot = rows.length * height + 18;
        const date = time => new Date(time).toISOString().slice(0, 16) + "Z";
        picture.append(drawn("text", {x: left, y: foot, class: "dim"}, date(first)),
            drawn("text", {x: width, y: foot, class: "dim", "text-anchor": "end"}, date(last)));
        byId("timeline").append(picture);
        if (timed.length < reports.length) {
            byId("timeline").append(named("note", make("p", `${reports.length - timed.length} reports tell no time.`)));
        }
    };

    const row = (cells, name) => make("tr", "", ...cells.map(cell =>
        make(name || "td", "", typeof cell === "object" ? cell : make("bdi", String(cell)))));

    const drawTables = () => {
        const modeOf = report => show(part(report, "request").mode);
        const modes = group(modeOf).map(([mode]) => mode).slice(0, mostModes);
        byId("counts").append(row(["process", ...modes, "all", "size"], "th"));
        const processes = group(processOf);
        for (const [name, of] of processes.slice(0, 3 * mostRows)) {
            byId("counts").append(row([name,
                ...modes.map(mode => of.filter(report => modeOf(report) === mode).length || ""),
                of.length, size(sum(of))]));
        }
        if (processes.length > 3 * mostRows) {
            byId("counts").append(row([`${processes.length - 3 * mostRows} other processes`]));
        }
        byId("users").append(row(["user", "reports", "size", "share"], "th"));
        const total = sum(reports) || 1;
        for (const [name, of] of group(report => part(report, "request").user).slice(0, mostRows)) {
            const share = make("meter", "");
            share.value = sum(of) / total;
            share.title = (100 * share.value).toFixed(1) + " %";
            byId("users").append(row([name, of.length, size(sum(of)), share]));
        }
        byId("sizes").append(row(["report", "process", "size"], "th"));
        for (const report of [...reports].sort((a, b) => b.bytes - a.bytes).slice(0, 5)) {
            const link = make("a", String(report.id));
            link.href = "#report-" + report.id;
            byId("sizes").append(row([link, show(processOf(report)), size(report.bytes)]));
        }
    };

    // --- the details of one

    const members = (title, object) => {
        const list = make("dl");
        for (const [name, value] of Object.entries(object)) {
            list.append(make("dt", oneLine(name)), make("dd", show(value)));
        }
        return make("section", "", make("h3", title), list);
    };

    const attached = (kind, report) => {
        const node = byId(kind + "-" + report.id);
        return node ? json(node) : null;
    };
    const notWhole = file => file.state === "end" ? `The end of ${exact(file.bytes)}; the rest is in the report's directory.`
        : file.state === "out" ? `Its ${exact(file.bytes)} are not in this page, which has no room for them, but in the report's directory.`
        : file.state === "unreadable" ? "It could not be read." : "";

    const download = (bytes, name) => {
        const link = make("a", `Download ${name}, ${exact(bytes.length)}`);
        link.href = URL.createObjectURL(new Blob([bytes], {type: "application/octet-stream"}));
        link.download = name;
        return make("p", "", link);
    };

    const showArtefact = report => {
        const node = make("section", "", make("h3", "Artefact"));
        const file = report.artefact;
        const told = part(report, "artefact");
        if (!file) {
            node.append(make("p", told.reason ? "Not copied: " + show(told.reason) : "None."));
            return node;
        }
        const content = attached("artefact", report);
        const name = `report-${report.id}-artefact`;
        if (content !== null && file.kind === "binary") {
            node.append(download(Uint8Array.from(atob(content), c => c.charCodeAt(0)), name + ".bin"));
        } else if (content !== null) {
            const text = make("pre", plain(content));
            text.tabIndex = 0;
            node.append(text);
            if (file.state === "whole") {
                node.append(download(new TextEncoder().encode(content), name + ".txt"));
            }
        }
        if (notWhole(file)) {
            node.append(named("note", make("p", notWhole(file))));
        }
        return node;
    };

    const words = ["emerg", "alert", "crit", "err", "warn", "notice", "info", "debug"];
    const levelOf = line => {
        const number = /^<(\d{1,3})>/.exec(line);
        const word = /^\w+\s*:(\w+)\s*:/.exec(line);
        if (number || (word && words.includes(word[1]))) {
            return number ? number[1] & 7 : words.indexOf(word[1]);
        }
        return /panic|\bBUG\b|\boops\b|segfault|fatal|out of memory|call trace/i.test(line) ? 2
            : /error|fail|corrupt|unable|cannot|denied/i.test(line) ? 3
            : /warn|timed? ?out|unexpected|deprecated|retry/i.test(line) ? 4 : 6;
    };

    // Of the kernel's own clock, which begins with the boot of the machine that wrote the page, or of a
    // clock that a line tells.
    const timeOfLine = line => {
        const since = /^[^[]{0,24}\[\s*(\d+\.\d+)\]/.exec(line);
        return since ? about.boot + 1000 * since[1] : Date.parse(line.slice(0, 32).split(" ")[0].replace(",", "."));
    };

    const momentIn = (lines, report) => {
        const filed = parse(part(report, "request").filed);
        const times = lines.map(timeOfLine);
        const latest = times.reduce((a, b) => b > a ? b : a, -Infinity);
        if (Number.isNaN(filed) || latest === -Infinity || filed < about.boot || latest > timeOf(report) + 5000) {
            return null; // no clock that both have
        }
        const after = times.findIndex(time => time > filed);
        return after < 0 ? lines.length : after;
    };

    const showLog = report => {
        const section = make("details", "", make("summary", "", make("strong", "Kernel log")));
        section.open = true;
        const told = part(report, "kernel-log");
        if (told.reason || told.gap) {
            section.append(make("p", (told.reason ? show(told.reason) + ". " : "") + (told.gap ? "Lines may be missing before these." : "")));
        }
        const content = attached("log", report);
        if (content === null) {
            section.append(make("p", report.log ? notWhole(report.log) : "None."));
            return section;
        }
        let lines = content.split("\n").filter(line => line !== "");
        const cut = lines.length - mostLines;
        lines = lines.slice(-mostLines);
        const moment = momentIn(lines, report);
        const asked = "— the request: " + show(part(report, "request").filed);
        const list = named("log", make("div"));
        list.tabIndex = 0;
        lines.forEach((line, i) => {
            if (i === moment) {
                list.append(named("moment", make("div", asked)));
            }
            const level = levelOf(line);
            const node = named("line level" + level, make("div", oneLine(line)));
            node.title = words[level];
            list.append(node);
        });
        if (moment === null || moment === lines.length) {
            list.append(named("moment", make("div", moment === null
                ? asked + "; the report: " + show(report.report.time) + "; where among these lines cannot be told" : asked)));
        }
        const filter = make("input");
        filter.type = "search";
        const found = make("output");
        const choose = () => {
            const wanted = filter.value.toLowerCase();
            let n = 0;
            for (const node of list.querySelectorAll(".line")) {
                node.hidden = !node.textContent.toLowerCase().includes(wanted);
                n += node.hidden ? 0 : 1;
            }
            found.textContent = wanted ? ` ${n} of ${lines.length} lines` : "";
        };
        filter.addEventListener("input", choose);
        section.append(make("label", "Lines with ", filter), found, list,
            named("note", make("p", `Colours are the lines' levels, or guessed from words where a line tells none. ${notWhole(report.log)}`
                + (cut > 0 ? ` ${cut} lines before these are not shown.` : ""))));
        return section;
    };

    const build = (report, node) => {
        const known = ["id", "time", "directory", "request", "policy", "system", "applications", "artefact", "kernel-log"];
        const others = Object.fromEntries(Object.entries(report.report).filter(([name]) => !known.includes(name)));
        const parts = named("parts", make("div", "",
            members("Request", part(report, "request")),
            make("div", "",
                members("Report", {collected: report.report.time, directory: report.report.directory, size: exact(report.bytes)}),
                members("Policy", part(report, "policy")),
                members("Applications that answered", part(report, "applications"))),
            members("Device", part(report, "system"))));
        if (Object.keys(others).length > 0) {
            parts.append(members("Other", others));
        }
        node.append(make("div", "", parts, showArtefact(report), showLog(report)));
        mark(node);
    };

    // --- the list and its search

    const nodes = reports.map(report => {
        const request = part(report, "request");
        const summary = make("summary", "",
            make("span", String(report.id)), make("bdi", show(report.report.time)),
            make("bdi", show(request.process) + " / " + show(request.thread)),
            make("bdi", show(request.mode)), make("bdi", show(request.user)), make("span", size(report.bytes)));
        summary.title = "number, collected, process and thread, mode, user, size";
        const node = named("report", make("details", "", summary));
        node.id = "report-" + report.id;
        node.addEventListener("toggle", () => {
            if (node.open && node.children.length === 1) {
                build(report, node);
            }
        });
        return node;
    });

    const texts = [];
    const textOf = i => {
        if (texts[i] === undefined) {
            const report = reports[i];
            const artefact = report.artefact && report.artefact.kind === "text" ? attached("artefact", report) : "";
            texts[i] = [report.id, JSON.stringify(report.report), attached("log", report) || "", artefact || ""].join("\n").toLowerCase();
        }
        return texts[i];
    };
    const wanted = () => byId("search").value.toLowerCase().split(/\s+/).filter(word => word !== "");
    const mark = node => {
        const all = wanted();
        for (const line of node.querySelectorAll(".log > .line")) {
            const text = line.textContent.toLowerCase();
            line.classList.toggle("hit", all.some(word => text.includes(word)));
        }
    };
    const search = () => {
        const all = wanted();
        let n = 0;
        nodes.forEach((node, i) => {
            node.hidden = !all.every(word => textOf(i).includes(word));
            n += node.hidden ? 0 : 1;
            if (node.open) {
                mark(node);
            }
        });
        byId("found").textContent = all.length > 0 ? `${n} of ${nodes.length} reports` : `${nodes.length} reports`;
    };
    const openNamed = () => {
        const node = nodes.find(other => "#" + other.id === location.hash);
        if (node) {
            node.open = true;
            node.scrollIntoView();
        }
    };

    byId("made").textContent = `${reports.length} reports of ${plain(about.host)}, written ${about.made} by kelctl ${about.version}. `
        + `Names and texts are strangers'; what of them cannot be seen is shown as \\u{...}.`;
    for (const name of about.unreadable) {
        byId("made").after(named("warning", make("p", `${plain(name)}: it has no report that can be read`)));
    }
    drawTimeline();
    drawTables();
    byId("list").append(...nodes);
    byId("search").addEventListener("input", search);
    byId("tools").addEventListener("submit", event => event.preventDefault());
    byId("fold").addEventListener("click", () => nodes.forEach(node => { node.open = false; }));
    window.addEventListener("hashchange", openNamed);
    search();
    openNamed();
})();
