
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

    const hasPort = (ports, protocol, port) =>
        ports.split(" ").some((entry) => {
            const [of, list] = entry.split(":");
            return (protocol === "" || protocol === of) && list !== undefined &&
                list.split(",").some((range) => {
                    const [first, last = first] = range.split("-").map(Number);
                    return first <= port && port <= last;
                });
        });

    // ---- Search ----

    const parsed = new Map();  // by heading: the ranges of a column; null when they are not in the page
    const rangesOf = (heading) => {
        if (!parsed.has(heading)) {
            const text = heading.dataset.addresses;
            parsed.set(heading, text === undefined ? null : text.split(" ").map(rangeOf));
        }
        return parsed.get(heading);
    };

    const wordOf = (text) => {
        const port = /^(?:(tcp|udp)[\/:]?)?(\d{1,5})$/.exec(text);
        return {
            text,
            range: rangeOf(text),
            port: port && Number(port[2]) < 65536 ? Number(port[2]) : null,
            protocol: port && port[1] ? port[1] : "",
        };
    };

    const wordsOf = (query) =>
        // "tcp 22" is one word.
        query.toLowerCase().replace(/\b(tcp|udp)\s+(?=\d+(\s|$))/g, "$1/")
            .split(/\s+/).filter((word) => word !== "").map(wordOf);

    const rowFits = (row, word) =>
        word.port === null
            ? row.dataset.text.includes(word.text)
            : row.dataset.ports !== undefined && hasPort(row.dataset.ports, word.protocol, word.port);

    const columnFits = (heading, word) => {
        if (word.range === null) {
            return heading.textContent.toLowerCase().includes(word.text);
        }
        const ranges = rangesOf(heading);
        return ranges === null || ranges.some((range) => range !== null && meet(range, word.range));
    };

    // Each word keeps columns, rows or the whole table; with one that fits nothing, it is hidden.
    const searchTable = (table, words) => {
        const headings = all("thead th", table).slice(1);
        const rows = all("tbody tr", table);
        let columns = headings.map(() => true);
        let kept = rows.map(() => true);
        let fits = true;
        for (const word of words) {
            const ofColumns = headings.map((heading) => columnFits(heading, word));
            const ofRows = word.range === null ? rows.map((row) => rowFits(row, word)) : rows.map(() => false);
            if (table.dataset.title.split(" ").includes(word.text)) {
                continue;
            }
            if (ofRows.includes(true)) {
                kept = kept.map((is, i) => is && ofRows[i]);
            } else if (ofColumns.includes(true)) {
                columns = columns.map((is, i) => is && ofColumns[i]);
            } else {
                fits = false;
            }
        }
        fits = fits && kept.includes(true) && columns.includes(true);
        rows.forEach((row, i) => {
            row.hidden = !(fits && kept[i]);
            [...row.cells].slice(1).forEach((cell, column) => {
                cell.hidden = !columns[column];
            });
        });
        headings.forEach((heading, column) => {
            heading.hidden = !columns[column];
        });
        table.closest(".scroll").hidden = !fits;
        return rows.filter((row) => !row.hidden).length;
    };

    const searchRules = (table, words) => {
        const rows = all("tbody tr", table);
        for (const row of rows) {
            const text = table.dataset.title + " " + row.dataset.text;
            row.hidden = !words.every((word) => text.includes(word.text));
        }
        const shown = rows.filter((row) => !row.hidden).length;
        table.closest(".scroll").hidden = shown === 0;
        return shown;
    };

    const counted = (number, noun) => `${number} ${noun}${number === 1 ? "" : "s"}`;

    const search = () => {
        const words = wordsOf(document.getElementById("query").value);
        let reached = 0;
        let rules = 0;
        all("table.matrix").forEach((table) => {
            reached += searchTable(table, words);
        });
        all("table.rules").forEach((table) => {
            rules += searchRules(table, words);
        });
        for (const part of all("section section")) {
            part.hidden = words.length > 0 && all(".scroll", part).every((one) => one.hidden);
        }
        document.getElementById("found").textContent = words.length === 0
            ? ""
            : `${counted(reached, "row")} of the tables and ${counted(rules, "rule")} found`;
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

    const form = document.getElementById("search");
    form.hidden = false;
    form.addEventListener("submit", (event) => event.preventDefault());
    document.getElementById("query").addEventListener("input", search);
})();
