// What texts.js asks Cockpit for, in English or, by the page's own table, in German.

import { readFileSync } from "node:fs";
import vm from "node:vm";

export const WEB = new URL("../../../web/", import.meta.url);

/**
 * @param {string} name
 * @returns {Record<string, any>} the table that a file gives Cockpit
 */
export function table(name) {
    let given = {};
    vm.runInNewContext(readFileSync(new URL(name, WEB), "utf8"), { cockpit: { locale: texts => { given = texts; } } });
    return given;
}

/**
 * @param {Record<string, any>} texts
 */
export function fakeCockpit(texts = {}) {
    globalThis.cockpit = {
        language: texts[""]?.language ?? "en",
        gettext: text => texts[text]?.[1] ?? text,
        ngettext: (one, many, count) => texts[one]?.[count === 1 ? 1 : 2] ?? (count === 1 ? one : many),
    };
}
