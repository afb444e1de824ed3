// What a screen reader is told. Of many things at once only how many they are.

import { plural } from "./texts.js";

const QUIET_MS = 500; // without anything new, before it is told
const MOST = 3; // sentences

/** @type {string[]} */
let sentences = [];
let timer = 0;

/** @param {string} sentence */
export function tellAloud(sentence) {
    sentences.push(sentence);
    clearTimeout(timer);
    timer = setTimeout(flush, QUIET_MS);
}

function flush() {
    const text = sentences.length > MOST ? plural("$0 event", "$0 events", sentences.length) : sentences.join(" ");
    sentences = [];
    /** @type {HTMLElement} */ (document.getElementById("told")).textContent = text;
}
