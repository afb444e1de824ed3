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
    const calls = [...source.matchAll(/\bproblem_add\(\s*(?:look|about->look),\s+(.*?)\);\n/gs)].map(([, words]) => {
        const texts = [...words.replaceAll(/"\s+"/g, "").matchAll(literal)].map(match => match[1]);
        const format = texts.filter(Boolean).pop() ?? ""; // behind it are names only
        const remedy = texts[texts.indexOf(format) - 1];
        return /^"/.test(words) ? { id: texts[0], remedy: remedy === texts[0] ? "" : remedy, format } : { id: "", remedy: "", format };
    });
    const named = new Map([...source.matchAll(/^constexpr char (\w+)\[\] = "([^"]+)";/gm)].map(([, name, text]) => [name, text]));
    const rows = [...source.replaceAll(/"\s+"/g, "").matchAll(/\{"([a-z_]+)",\s+(?:"([^"]+)"|(\w+)),\s+"([^"]+)"(?:, true)?\}/g)];
    return [...calls, ...rows.map(([, id, text, name, remedy]) => ({ id, remedy, format: text ?? named.get(name) ?? "" }))];
}

/**
 * @param {string} source
 */
export function remedies(source) {
    const rows = [...source
        .matchAll(/\.(?:remedy|start_bridge|restart_bridge|tell_avahi) =\s+(?:\w+\()?"([^"]+)"/g)].map(match => match[1]);
    return [...new Set([...rows, ...sentences(source), ...adds(source).map(one => one.remedy)])].filter(Boolean);
}

/**
 * The ids that a problem may have for which a server's program is asked, where it is asked.
 *
 * @param {string} source
 * @returns {string[]}
 */
export function askedFor(source) {
    const functions = [...source.matchAll(/^(?:static )?[\w ]+\b\w+\([^;]*?\)\n\{\n(.*?)^\}$/gms)].map(([, body]) => body);
    const faults = functions.filter(body => body.includes("->asks"))
        .flatMap(body => [...body.matchAll(/faults\[SERVER_(\w+)\]/g)].map(([, name]) => name.toLowerCase()));
    const servers = [...source.matchAll(/^static bool (\w+)_read_users\(.*\n\{\n.*machine_ask/gm)].map(([, name]) => name);
    return servers.flatMap(server => faults.map(fault => `${server}_${fault}`));
}

/**
 * The remedies that are sentences, as the sources mark them.
 *
 * @param {string} source
 * @returns {string[]}
 */
export function sentences(source) {
    const joined = source.replaceAll(/"\s+"/g, "");
    return [...joined.matchAll(/\bprose\("([^"]+)"\)/g), ...joined.matchAll(/"([^"]+)", true\}/g)].map(match => match[1]);
}

// ---- what is printed on standard error ----

/**
 * @param {string} source
 * @returns {string} without its comments
 */
function withoutComments(source) {
    return source.replace(/("(?:[^"\\\n]|\\.)*"|'(?:[^'\\\n]|\\.)+')|\/\/.*/g, (_all, kept) => kept ?? "");
}

/**
 * Where one of these signs stands first in an expression: in no text, in no bracket and in no name, as `Held::no`.
 *
 * @param {string} words
 * @param {string} signs
 */
function findSign(words, signs) {
    let depth = 0;
    for (const { 0: piece, index } of words.matchAll(/"(?:[^"\\]|\\.)*"|'(?:[^'\\]|\\.)+'|::|[\s\S]/g)) {
        if (depth === 0 && signs.includes(piece))
            return index;
        depth += /^[([{]$/.test(piece) ? 1 : /^[)\]}]$/.test(piece) ? -1 : 0;
    }
    return -1;
}

/**
 * @param {string} words - what stands behind a call's bracket
 * @returns {{given: string[], rest: string}} its arguments, and what stands behind it
 */
function argumentsOf(words) {
    const given = [];
    for (let rest = words; ;) {
        const end = findSign(rest, ",)");
        given.push(rest.slice(0, end).trim());
        if (rest[end] === ")")
            return { given, rest: rest.slice(end + 1) };
        rest = rest.slice(end + 1);
    }
}

/**
 * The texts that an expression can be; "%s" for what only the running program knows.
 *
 * @param {string} expression
 * @returns {string[]}
 */
function textsOf(expression) {
    if (/^(?:"(?:[^"\\]|\\.)*"\s*)+$/.test(expression))
        return [[...expression.matchAll(literal)].map(match => match[1]).join("")];
    const asked = findSign(expression, "?");
    if (asked < 0)
        return ["%s"];
    const rest = expression.slice(asked + 1);
    const or = findSign(rest, ":");
    return [rest.slice(0, or), rest.slice(or + 1)].flatMap(one => textsOf(one.trim()));
}

/**
 * @param {string} format
 * @param {string[]} values - expressions
 * @returns {string[]} all that it can come to
 */
function filled(format, values) {
    const pieces = format.split(/%-?\d*(?:\.\d+)?(?:s|d|u|zu)/);
    return pieces.slice(1).reduce((begun, piece, at) =>
        begun.flatMap(begin => textsOf(values[at]).map(value => begin + value + piece)), [pieces[0]]);
}

/**
 * The sentences that are printed on standard error, with "%s" in each place, and the exit status that stands behind
 * the call, if one does.
 *
 * @param {string} source
 * @returns {{text: string, status: string | undefined}[]}
 */
export function complaints(source) {
    const plain = withoutComments(source);
    return [...plain.matchAll(/\bcomplain\(|\bcomplain_errno\(|\btext_print\(stderr,/g)].flatMap(({ 0: call, index }) => {
        const { given: [first, ...values], rest } = argumentsOf(plain.slice(index + call.length));
        const status = /^;\s*(?:return|\*?status =) (EXIT_\w+);/.exec(rest)?.[1];
        const texts = call === "complain_errno(" ? textsOf(first).map(what => first === "nullptr" ? "%s" : `${what}: %s`) :
            textsOf(first).flatMap(format => filled(format, values));
        return texts.map(text => ({ text: text.replace(/\\n$/, ""), status }));
    });
}

/**
 * What is wrong with the value of a setting.
 *
 * @param {string} source
 * @returns {string[]} with "%s" in each place
 */
export function settingFaults(source) {
    const plain = withoutComments(source);
    return [...plain.matchAll(/\bfail\((?=\w+,\s*")|\bsnprintf\(value\.fault,\s*\w+,\s*(?=")/g)].flatMap(({ 0: call, index }) => {
        const { given } = argumentsOf(plain.slice(index + call.length));
        if (!call.startsWith("fail"))
            return filled(textsOf(given[0])[0], given.slice(1)).map(text => text.replaceAll("\\\"", "\""));
        return textsOf(given[1]).flatMap(what => textsOf(given[2]).map(about => what + about));
    });
}
