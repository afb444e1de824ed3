// The one way to the world: vyhotplugctl, by lists of arguments.

import { jsonLines, parse } from "./json_lines.js";

const PROGRAM = "vyhotplugctl";

/** @param {string[]} words @param {object} options */
function spawn(words, options) {
    return cockpit.spawn([PROGRAM, ...words], { err: "message", environ: ["LC_ALL=C.UTF-8"], ...options });
}

/** @param {any} process @returns {Promise<Answer>} never fails */
function ended(process) {
    return new Promise(resolve => {
        process
            .done((/** @type {string} */ out, /** @type {string} */ message) =>
                resolve({ status: 0, out: out ?? "", message: message ?? "", problem: null }))
            .fail((/** @type {any} */ error, /** @type {string} */ out) =>
                resolve({ status: error.exit_status, out: out ?? "", message: error.message ?? "", problem: error.problem }));
    });
}

/**
 * Asks for JSON, as administrator where that is allowed.
 *
 * @param {string[]} words - the call and its words, without --json
 * @returns {Promise<{told: any, answer: Answer}>} `told` is undefined when there is no JSON
 */
export async function ask(...words) {
    const answer = await ended(spawn([...words.slice(0, 1), "--json", ...words.slice(1)], { superuser: "try" }));
    return { told: parse(answer.out), answer };
}

/**
 * Has something done, as administrator. `stop` ends it before its time.
 *
 * @param {string[]} words
 * @returns {{over: Promise<Answer>, stop: () => void}}
 */
export function order(words) {
    const process = spawn(words, { superuser: "require" });
    return { over: ended(process), stop: () => process.close("terminated") };
}

/**
 * Watches until it ends, which it does by itself only when something is wrong.
 *
 * @param {(line: any) => void} take
 * @returns {Promise<Answer>}
 */
export function watch(take) {
    const process = spawn(["watch", "--json"], { superuser: "try" });
    process.stream(jsonLines(take));
    return ended(process);
}
