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
 * Where problems are told.
 */
export const PROBLEM_FILES = ["problems", "serving_problems", "file_server"].map(name => `companions/ctl/${name}.cpp`);

/**
 * The calls of `problem_add`, and the rows of tables that hold such texts.
 *
 * @param {string} source
 * @returns {{id: string, remedy: string, format: string}[]} "" where that is no literal
 */
export function adds(source) {
    const calls = [...source.matchAll(/\bproblem_add\((?:look|about->look), (.*?)\);\n/gs)].map(([, words]) => {
        const texts = [...words.replaceAll(/"\s+"/g, "").matchAll(literal)].map(match => match[1]);
        const format = texts.filter(Boolean).pop() ?? ""; // behind it are names only
        const remedy = texts[texts.indexOf(format) - 1];
        return /^"/.test(words) ? { id: texts[0], remedy: remedy === texts[0] ? "" : remedy, format } : { id: "", remedy: "", format };
    });
    const named = new Map([...source.matchAll(/^constexpr char (\w+)\[\] = "([^"]+)";/gm)].map(([, name, text]) => [name, text]));
    const rows = [...source.replaceAll(/"\s+"/g, "").matchAll(/\{"([a-z_]+)",\s+(?:"([^"]+)"|(\w+)),\s+"([^"]+)"\}/g)];
    return [...calls, ...rows.map(([, id, text, name, remedy]) => ({ id, remedy, format: text ?? named.get(name) ?? "" }))];
}

/**
 * @param {string} source
 */
export function remedies(source) {
    const rows = [...source.matchAll(/\.(?:remedy|start_bridge|restart_bridge|tell_avahi) =\s+"([^"]+)"/g)].map(match => match[1]);
    return [...new Set([...rows, ...adds(source).map(one => one.remedy)])].filter(Boolean);
}

/**
 * The ids of what is looked at for `status`.
 *
 * @param {string} source
 * @returns {string[]}
 */
export function quickIds(source) {
    const functions = [...source.matchAll(/^(?:static )?[\w ]+\b(\w+)\([^;]*?\)\n\{\n(.*?)^\}$/gms)];
    const bodies = new Map(functions.map(([, name, body]) => [name, body]));
    const whole = name => [...bodies.get(name).matchAll(/\b(\w+)\(/g)].map(match => match[1])
        .filter(other => bodies.has(other) && other !== name && other !== "problem_add").map(whole).join("") + bodies.get(name);
    const rows = [...source.matchAll(/\{PROBLEMS_(\w+), (look_at_\w+)\}/g)].filter(([, scope]) => scope !== "ALL");
    const ids = rows.flatMap(([, , name]) => [...whole(name).matchAll(/(?:problem_add\(look, |\.id = )"(\w+)"/g)].map(match => match[1]));
    return [...new Set(ids)];
}
