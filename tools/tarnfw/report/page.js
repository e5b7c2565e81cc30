
"use strict";
// Without this the page has everything but the search and the arrow keys.
(() => {
    const all = (selector, within = document) => [...within.querySelectorAll(selector)];

    // ---- Addresses and ports as the tables have them ----

    const bits = (number, width) => number.toString(2).padStart(width, "0");

    // The bits of an address as a text, or null.
    const addressBits = (text) => {
        const v4 = /^(\d{1,3})\.(\d{1,3})\.(\d{1,3})\.(\d{1,3})$/.exec(text);
        if (v4) {
            const bytes = v4.slice(1).map(Number);
            return bytes.every((byte) => byte < 256) ? bytes.map((byte) => bits(byte, 8)).join("") : null;
        }
        if (!/^[0-9a-f:]+$/i.test(text) || !text.includes(":") || text.split("::").length > 2) {
            return null;
        }
        const [head, tail] = text.split("::").map((half) => (half === "" ? [] : half.split(":")));
        const given = head.length + (tail ? tail.length : 0);
        if (tail ? given > 7 : given !== 8) {
            return null;
        }
        const groups = tail ? [...head, ...Array(8 - given).fill("0"), ...tail] : head;
        return groups.every((group) => /^[0-9a-f]{1,4}$/i.test(group))
            ? groups.map((group) => bits(parseInt(group, 16), 16)).join("")
            : null;
    };

    // "10.0.0.0/8", "10.0.0.1-10.0.0.9" or "10.0.0.1", as first and last bits.
    const rangeOf = (text) => {
        const [address, length] = text.split("/");
        if (length !== undefined) {
            const first = addressBits(address);
            if (first === null || !/^\d+$/.test(length) || Number(length) > first.length) {
                return null;
            }
            const network = first.slice(0, Number(length));
            return [network.padEnd(first.length, "0"), network.padEnd(first.length, "1")];
        }
        const [first, last] = text.split("-").map(addressBits);
        return first === null || last === null ? null : [first, last === undefined ? first : last];
    };

    const meet = (a, b) => a[0].length === b[0].length && a[0] <= b[1] && b[0] <= a[1];

    // "tcp:22,80-90 udp:53" as {tcp: [[22, 22], [80, 90]], udp: [[53, 53]]}.
    const portsOf = (text) => {
        const ports = {tcp: [], udp: []};
        for (const entry of text === undefined ? [] : text.split(" ")) {
            const [protocol, list] = entry.split(":");
            ports[protocol] = list.split(",").map((range) => {
                const [first, last = first] = range.split("-").map(Number);
                return [first, last];
            });
        }
        return ports;
    };

    const hasPort = (ports, protocol, [from, to]) =>
        ["tcp", "udp"].some((of) => (protocol === "" || protocol === of) &&
            ports[of].some(([first, last]) => first <= to && from <= last));

    // ---- Search ----

    // What is searched, read from the page once; `shown` is what it shows now.
    const readTable = (table) => ({
        part: table.closest(".scroll"),
        title: table.dataset.title,
        titleWords: table.dataset.title.split(/[ ,]+/),
        columns: all("thead th", table).slice(1).map((heading) => ({
            heading,
            text: heading.textContent.toLowerCase(),
            // Null when they are not in the page.
            ranges: heading.dataset.addresses === undefined
                ? null
                : heading.dataset.addresses.split(" ").map(rangeOf).filter((range) => range !== null),
            shown: true,
        })),
        rows: all("tbody tr", table).map((row) => ({
            row,
            cells: [...row.cells].slice(1),
            text: row.dataset.text,
            ports: portsOf(row.dataset.ports),
            shown: true,
        })),
        shown: true,
    });

    let page = null;
    const readPage = () => {
        page = page || {
            matrices: all("table.matrix").map(readTable),
            rules: all("table.rules").map(readTable),
            parts: all("section section").map((part) => [part, all(".scroll", part)]),
            isWhole: document.querySelector(".left-out") === null,
        };
        return page;
    };

    const kVerdicts = {allowed: "allow", denied: "deny", blocked: "deny", depends: "depends"};

    // "ssh", "22", "tcp/22", "22/tcp", "6000-6010", "10.0.0.0/8", "denied", "rule:4:eth0".
    const wordOf = (text) => {
        const place = /^rule:(\d+):(.*)$/.exec(text);
        if (place) {
            const name = `rule ${place[1]}` + (place[2] === "" ? "" : ` of ${place[2]}`);
            return {text: name, range: null, ports: null, protocol: "", verdict: null, place: name};
        }
        const [, before, first, last = first, after] =
            /^(?:(tcp|udp)[\/:]?)?(\d{1,5})(?:[-:](\d{1,5}))?(?:\/(tcp|udp))?$/.exec(text) || [];
        const isPorts = first !== undefined && Number(first) <= Number(last) && Number(last) < 65536;
        return {
            text,
            range: rangeOf(text),
            ports: isPorts ? [Number(first), Number(last)] : null,
            protocol: before || after || "",
            verdict: Object.hasOwn(kVerdicts, text) ? kVerdicts[text] : null,
            place: null,
        };
    };

    // Alternatives, each with words that all count. "tcp 22", "port 22" and "rule 4 of eth0" are one word.
    const alternativesOf = (query) =>
        query.toLowerCase().replace(/\brule\s+(\d+)(?:\s+of\s+([^\s,]+))?/g, (all, number, adapter = "") =>
            `rule:${number}:${adapter}`)
            .replace(/\bports?\s+(?=(?:(?:tcp|udp)[\s\/:]*)?\d)/g, "")
            .replace(/\b(tcp|udp)\s+(?=\d+(?:[-:]\d+)?(?:[\s,]|$))/g, "$1/")
            .replace(/(\d)\s+(tcp|udp)\b(?!\/)/g, "$1/$2")
            .split(",").map((part) => part.split(/\s+/).filter((word) => word !== "").map(wordOf))
            .filter((words) => words.length > 0);

    const rowFits = (row, word) =>
        word.ports === null ? row.text.includes(word.text) : hasPort(row.ports, word.protocol, word.ports);

    const columnFits = (column, word) =>
        word.range === null
            ? column.text.includes(word.text)
            : column.ranges === null || column.ranges.some((range) => meet(range, word.range));

    // A cell of a verdict, or in which a rule decides.
    const cellFits = (cell, word) =>
        word.verdict !== null
            ? cell.classList.contains(word.verdict)
            : all("li", cell).some((item) => `${item.textContent}:`.toLowerCase().split(/[:,] ?/)
                .some((name) => name === word.place || name.startsWith(`${word.place} of `)));

    // Shows a part or hides it; whether that changed anything.
    const show = (entry, part, shown) => {
        if (entry.shown === shown) {
            return false;
        }
        entry.shown = shown;
        part.hidden = !shown;
        return true;
    };

    const every = (list) => list.map(() => true);
    const both = (one, other) => one.map((is, i) => is && other[i]);
    const either = (one, other) => one.map((is, i) => is || other[i]);

    // Each word keeps rows, columns or the whole table. Null when one fits nothing of it.
    const foundInTable = (table, words) => {
        const found = {rows: null, columns: null};  // null: all
        const keepRows = (rows) => { found.rows = both(found.rows || every(table.rows), rows); };
        const keepColumns = (columns) => {
            found.columns = both(found.columns || every(table.columns), columns);
        };
        for (const word of words) {
            if (word.verdict !== null || word.place !== null) {
                const cells = table.rows.map((row) => row.cells.map((cell) => cellFits(cell, word)));
                keepRows(cells.map((ofRow) => ofRow.includes(true)));
                keepColumns(table.columns.map((column, i) => cells.some((ofRow) => ofRow[i])));
                continue;
            }
            if (table.titleWords.includes(word.text)) {
                continue;
            }
            const ofRows = table.rows.map((row) => word.range === null && rowFits(row, word));
            if (ofRows.includes(true)) {
                keepRows(ofRows);
                continue;
            }
            const ofColumns = table.columns.map((column) => columnFits(column, word));
            if (!ofColumns.includes(true)) {
                return null;
            }
            keepColumns(ofColumns);
        }
        const isEmpty = (list) => list !== null && !list.includes(true);
        return isEmpty(found.rows) || isEmpty(found.columns) ? null : found;
    };

    // Alternatives that keep rows add up, and so do those that keep columns.
    const searchTable = (table, alternatives) => {
        const found = alternatives.map((words) => foundInTable(table, words)).filter((one) => one !== null);
        const fits = found.length > 0 || alternatives.length === 0;
        show(table, table.part, fits);
        if (!fits) {
            return 0;
        }
        const kept = (name, whole) => {
            const lists = found.map((one) => one[name]).filter((list) => list !== null);
            return lists.length === 0 ? every(whole) : lists.reduce(either);
        };
        const columns = kept("columns", table.columns);
        const rows = kept("rows", table.rows);
        table.columns.forEach((column, i) => {
            if (show(column, column.heading, columns[i])) {
                for (const row of table.rows) {
                    row.cells[i].hidden = !columns[i];
                }
            }
        });
        table.rows.forEach((row, i) => show(row, row.row, rows[i]));
        return rows.filter((is) => is).length;
    };

    // The addresses and ports that a rule is for.
    const readRule = (row) => {
        row.ranges = row.ranges ||
            row.text.split(/[\s,()]+/).map(rangeOf).filter((range) => range !== null);
        if (row.rulePorts === undefined) {
            const [, protocol, list] = /\b(tcp\/udp|tcp|udp) (?:source port )?(\d[\d,-]*)(?=\s|$)/.exec(row.text) || [];
            row.rulePorts = portsOf(list === undefined
                ? undefined
                : protocol.split("/").map((one) => `${one}:${list}`).join(" "));
        }
        return row;
    };

    const ruleFits = (row, table, word) => {
        if (word.place !== null) {
            const [name, adapter] = word.place.split(" of ");
            return row.text.startsWith(`${name} `) &&
                (adapter === undefined || table.title === adapter);
        }
        if (word.verdict !== null) {
            const [, action] = /^(?:rule \d+|default policy) (allow|deny)\b/.exec(row.text) || [];
            return action === word.verdict;
        }
        if (word.range !== null && readRule(row).ranges.some((range) => meet(range, word.range))) {
            return true;
        }
        return word.ports === null
            ? row.text.includes(word.text) || table.title.includes(word.text)
            : hasPort(readRule(row).rulePorts, word.protocol, word.ports);
    };

    const searchRules = (table, alternatives) => {
        let shown = 0;
        for (const row of table.rows) {
            const fits = alternatives.length === 0 ||
                alternatives.some((words) => words.every((word) => ruleFits(row, table, word)));
            shown += fits ? 1 : 0;
            show(row, row.row, fits);
        }
        show(table, table.part, shown > 0);
        return shown;
    };

    const counted = (number, noun) => `${number} ${noun}${number === 1 ? "" : "s"}`;

    const search = () => {
        const {matrices, rules, parts, isWhole} = readPage();
        const alternatives = alternativesOf(document.getElementById("query").value);
        const sum = (tables, of) => tables.reduce((count, table) => count + of(table, alternatives), 0);
        const foundRows = sum(matrices, searchTable);
        const foundRules = sum(rules, searchRules);
        for (const [part, tables] of parts) {
            part.hidden = alternatives.length > 0 && tables.every((one) => one.hidden);
        }
        document.getElementById("found").textContent = alternatives.length === 0
            ? ""
            : `${counted(foundRows, "row")} of the tables and ${counted(foundRules, "rule")} found` +
                (isWhole ? "" : "; the page leaves some out");
    };

    // Not at each key of a word.
    const kPause = 150;  // ms
    let timer = 0;
    const searchSoon = () => {
        clearTimeout(timer);
        timer = setTimeout(search, kPause);
    };

    // ---- Keys ----

    const kSteps = {ArrowLeft: [0, -1], ArrowRight: [0, 1], ArrowUp: [-1, 0], ArrowDown: [1, 0]};

    // To the next cell that is shown, in a table.
    const move = (cell, [down, right]) => {
        let row = cell.parentElement;
        let column = cell.cellIndex;
        for (;;) {
            column += right;
            if (down !== 0) {
                row = down < 0 ? row.previousElementSibling : row.nextElementSibling;
            }
            const next = row === null ? undefined : row.cells[column];
            if (next === undefined || next.tagName !== "TD") {
                return;
            }
            if (!next.hidden && !row.hidden) {
                next.querySelector("summary").focus();
                return;
            }
        }
    };

    document.addEventListener("keydown", (event) => {
        const summary = event.target.closest ? event.target.closest(".matrix summary") : null;
        if (event.key === "Escape") {
            const open = event.target.closest ? event.target.closest(".matrix details[open]") : null;
            if (open !== null) {
                open.open = false;
                open.querySelector("summary").focus();
            }
        } else if (summary !== null && event.key in kSteps &&
                   !event.altKey && !event.ctrlKey && !event.metaKey) {
            event.preventDefault();
            move(summary.closest("td"), kSteps[event.key]);
        }
    });

    // ---- Paper ----

    // What a cell has inside is printed, also where the style alone does not open it.
    let opened = [];
    window.addEventListener("beforeprint", () => {
        opened = all(".matrix details:not([open])");
        opened.forEach((cell) => { cell.open = true; });
    });
    window.addEventListener("afterprint", () => {
        opened.forEach((cell) => { cell.open = false; });
        opened = [];
    });

    const form = document.getElementById("search");
    form.hidden = false;
    form.addEventListener("submit", (event) => {
        event.preventDefault();
        clearTimeout(timer);
        search();
    });
    document.getElementById("query").addEventListener("input", searchSoon);
})();
