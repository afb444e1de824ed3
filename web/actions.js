// What people have done, and how it went.

import { ask, order } from "./ctl.js";
import { diskOf, isMounted } from "./model.js";
import { _, diskTitle, format } from "./texts.js";

const WAIT_S = 86400; // of "wait until it is free"; vyhotplugctl takes no more

/** What can be stopped, by key. @type {Map<string, () => void>} */
const stoppable = new Map();

/** @param {Send} send @param {string} key @param {Partial<Task> | undefined} task */
function tell(send, key, task) {
    send({ type: "task", key, task: task && { verb: "", phase: "running", message: "", status: null, holders: [], ...task } });
}

/** Who holds any of these. @param {Item[]} parts */
async function holdersOf(parts) {
    const answers = await Promise.all(parts.filter(isMounted).map(part => ask("who", part.name ?? "")));
    return answers.flatMap(({ told }) => told?.holders ?? []);
}

/**
 * Has one thing done. Returns the answer when it was, else null.
 *
 * @param {Send} send
 * @param {string} key
 * @param {string} verb
 * @param {string[]} words
 * @param {Item[]} parts - of which it is told who holds them when they are busy
 * @param {"running" | "waiting"} phase
 */
async function run(send, key, verb, words, parts = [], phase = "running") {
    tell(send, key, { verb, phase });
    const process = order(words);
    stoppable.set(key, process.stop);
    const answer = await process.over;
    stoppable.delete(key);
    if (answer.status === 0) {
        tell(send, key, undefined);
        return answer;
    }
    if (answer.problem === "terminated" && phase === "waiting")
        tell(send, key, undefined);
    else if (answer.status === 4)
        tell(send, key, { verb, phase: "busy", message: answer.message, status: 4, holders: await holdersOf(parts) });
    else
        tell(send, key, { verb, phase: "failed", message: answer.message, status: answer.status });
    return null;
}

/** @param {string} key */
export function stop(key) {
    stoppable.get(key)?.();
}

/** @param {Send} send @param {string} key */
export function dismissTask(send, key) {
    tell(send, key, undefined);
}

/** The key of an item's settings. @param {Item} item */
export function settingsKey(item) {
    return `set ${item.identity ?? item.name}`;
}

/** @param {Send} send @param {Item} item @param {string[]} words - "guest=yes" */
export function set(send, item, words) {
    return run(send, settingsKey(item), "set", ["set", "--", item.identity ?? "", ...words]);
}

/**
 * Sets what differs from what was held when the form was opened, and closes the form.
 *
 * @param {Send} send
 * @param {Item} item
 * @param {string[]} words - all that the form has
 * @param {string[]} was
 */
export async function setForm(send, item, words, was) {
    const changed = words.filter(word => !was.includes(word));
    if (changed.length === 0 || await set(send, item, changed))
        closeForm(send, item);
}

/** @param {Send} send @param {Item} item */
export function closeForm(send, item) {
    send({ type: "open", key: item.identity ?? "", form: undefined, draft: undefined });
}

/** @param {Send} send @param {Item} item */
export function askForget(send, item) {
    tell(send, settingsKey(item), { verb: "forget", phase: "asked" });
}

/** @param {Send} send @param {Item} item */
export function forget(send, item) {
    return run(send, settingsKey(item), "forget", ["forget", "--", item.identity ?? ""]);
}

/** @param {Send} send @param {Item} item */
export function mount(send, item) {
    return run(send, `part ${item.name}`, "mount", ["mount", "--", item.name ?? ""]);
}

/** @param {Send} send @param {Item} item @param {string[]} options */
export function unmount(send, item, options = []) {
    const waits = options[0] === "--wait" ? "waiting" : "running";
    const verb = options[0] === "--force" ? "force" : "unmount";
    return run(send, `part ${item.name}`, verb, ["unmount", ...options, "--", item.name ?? ""], [item], waits);
}

/** @param {Send} send @param {Item} item */
export function waitAndUnmount(send, item) {
    return unmount(send, item, ["--wait", String(WAIT_S)]);
}

/** What is known of an ejected disk. @param {string} told - "sda is unmounted and switched off: safe to pull" */
function wayOut(told) {
    if (told.includes(" and switched off"))
        return _("It is switched off.");
    if (told.includes(" and gone from the machine"))
        return _("The machine has let go of it; its port may still have power.");
    return _("It is unmounted; its port stays on.");
}

/** @param {Send} send @param {Item[]} parts @param {string[]} options */
export async function eject(send, parts, options = []) {
    const disk = diskOf(parts[0].name ?? "");
    const waits = options.length > 0 ? "waiting" : "running";
    const title = diskTitle(disk, parts);
    const answer = await run(send, `disk ${disk}`, "eject", ["eject", ...options, "--", disk], parts, waits);
    if (answer === null)
        return;
    send({ type: "notice", text: `${format(_("$0 ($1) may be pulled now."), title, disk)} ${wayOut(answer.out)}` });
}

/** @param {Send} send @param {Item[]} parts */
export function waitAndEject(send, parts) {
    return eject(send, parts, ["--wait", String(WAIT_S)]);
}

/** Detaches what is mounted, whoever holds it, and ejects the disk. @param {Send} send @param {Item[]} parts */
export async function forceEject(send, parts) {
    const key = `disk ${diskOf(parts[0].name ?? "")}`;
    for (const part of parts.filter(isMounted)) {
        if (!await run(send, key, "force", ["unmount", "--force", "--", part.name ?? ""], parts))
            return;
    }
    await eject(send, parts);
}
