// What vyhotplugctl's sources have of texts: the page knows them by heart.

/**
 * Words of others that stand in messages: errors of the C library, and what Cockpit says of a call that failed.
 */
export const SYSTEM_WORDS = [
    "No such file or directory", "Permission denied", "Input/output error", "Read-only file system",
    "No space left on device", "Invalid argument", "Not a directory", "Cannot allocate memory",
    "Structure needs cleaning", "Device or resource busy", 
    "blkid cannot be run", "blkid failed",
    "Not permitted to perform this action.", "Your session has been terminated.", "Internal error", "Connection has timed out.",
    "Server has closed the connection.", "not-found",
];

const literal = /"((?:[^"\\]|\\.)*)"/g;

/**
 * A format of printf's as the form that stands in JSON.
 *
 * @param {string} format
 */
export function toForm(format) {
    let at = 0;
    return format.replace(/%s|%d|%zu/g, () => `$${at++}`);
}

/**
 * The calls of `add` in problems.cpp.
 *
 * @param {string} source
 * @returns {{id: string, remedy: string, format: string}[]} "" where that is no literal
 */
export function adds(source) {
    return [...source.matchAll(/\badd\((?:look|about->look), (.*?)\);\n/gs)].map(([, words]) => {
        const texts = [...words.replaceAll(/"\s+"/g, "").matchAll(literal)].map(match => match[1]);
        const format = texts.filter(Boolean).pop() ?? ""; // behind it are names only
        return /^"/.test(words) ? { id: texts[0], remedy: texts[texts.indexOf(format) - 1], format } : { id: "", remedy: "", format };
    });
}

/**
 * @param {string} source
 */
export function remedies(source) {
    const rows = [...source.matchAll(/\.remedy = "([^"]+)"/g)].map(match => match[1]);
    return [...new Set([...rows, ...adds(source).map(one => one.remedy)])].filter(Boolean);
}

/**
 * The ids of what is looked at for `status`.
 *
 * @param {string} source
 * @returns {string[]}
 */
export function quickIds(source) {
    const bodies = new Map([...source.matchAll(/^static [\w ]+\b(\w+)\([^;]*?\)\n\{\n(.*?)^\}$/gms)].map(([, name, body]) => [name, body]));
    const whole = name => [...bodies.get(name).matchAll(/\b(\w+)\(/g)].map(match => match[1])
        .filter(other => bodies.has(other) && other !== name && other !== "add").map(whole).join("") + bodies.get(name);
    const rows = [...source.matchAll(/\{PROBLEMS_(\w+), (look_at_\w+)\}/g)].filter(([, scope]) => scope !== "ALL");
    const ids = rows.flatMap(([, , name]) => [...whole(name).matchAll(/(?:add\(look, |\.id = )"(\w+)"/g)].map(match => match[1]));
    return [...new Set(ids)];
}
