// Small things that cards and lists are made of.

import { h } from "./dom.js";
import { _, format, isRunning, plural, size, use } from "./texts.js";
import { failure, usesIn } from "./told.js";
import { isUnderWay } from "./model.js";
import { dismissTask, stop } from "./actions.js";

/** @param {string} text @param {() => void} onclick @param {Record<string, any>} attributes */
export function button(text, onclick, attributes = {}) {
    return h("button", { type: "button", class: "button", onclick, ...attributes }, text);
}

/** What others have said, each piece in its language. @param {Told} told */
export function toldView(told) {
    return told.map(({ text, lang }) => lang === null ? text : h("span", { lang }, text));
}

/** A bar of used and free room; null where nothing is known. @param {Item} item @param {string} title */
export function room(item, title) {
    if (item.size_bytes === null)
        return null;
    if (item.used_bytes === null || item.free_bytes === null)
        return h("p", { class: "room" }, size(item.size_bytes));
    const whole = item.used_bytes + item.free_bytes;
    const text = format(_("$0 used, $1 free of $2"), size(item.used_bytes), size(item.free_bytes), size(item.size_bytes));
    return h("p", { class: "room" },
        h("meter", {
            min: 0, max: Math.max(whole, 1), value: item.used_bytes, high: whole * 0.9,
            "aria-label": `${title}: ${text}`,
        }),
        h("span", {}, text));
}

/** @param {Holder} holder */
function holderLine(holder) {
    return h("li", {},
        h("strong", {}, holder.command), ` (${holder.pid}, ${holder.user}) `, use(holder),
        holder.client ? format(_(", for $0 at $1"), holder.client.user, holder.client.machine) : null,
        holder.file ? h("code", {}, holder.file) : null);
}

/**
 * How something that was asked for goes, or how it failed. Null where nothing was.
 *
 * @param {Send} send
 * @param {string} key
 * @param {Task | undefined} task
 * @param {{progress?: [number, number], busy?: (Wanted)[], asked?: Wanted[]}} more
 */
export function taskView(send, key, task, more = {}) {
    if (!task)
        return null;
    if (isUnderWay(task)) {
        const text = task.phase === "waiting" ? _("Waiting until nobody uses it ...") : isRunning(task.verb);
        const [done, all] = more.progress ?? [0, 0];
        return h("div", { key: `task ${key}`, class: "task", role: "status" },
            h("progress", { "aria-label": text, ...(all > 1 ? { max: all, value: done } : {}) }),
            h("span", {}, text, all > 1 ? ` ${done}/${all}` : ""),
            task.phase === "waiting" && button(_("Do not wait"), () => stop(key)));
    }
    if (task.phase === "asked")
        return h("div", { key: `asked ${key}`, class: "alert warning", role: "alert" }, ...(more.asked ?? []));
    const busy = task.phase === "busy";
    const uses = busy ? usesIn(task.message) : [];
    return h("div", { key: `failed ${key}`, class: `alert ${busy ? "warning" : "danger"}`, role: "alert" },
        h("p", {}, toldView(failure(task))),
        busy && task.holders.length > 0 && h("p", {},
            plural("$0 process uses it:", "$0 processes use it:", new Set(task.holders.map(holder => holder.pid)).size)),
        uses.map(one => h("p", {}, toldView(one))),
        busy && task.holders.length === 0 && uses.length === 0 && h("p", {}, _("Nobody was seen to hold it; a client may have just let go.")),
        busy && h("ul", { class: "holders" }, task.holders.map(holderLine)),
        h("div", { class: "buttons" }, ...(busy ? more.busy ?? [] : []),
            button(busy ? _("Leave it mounted") : _("Dismiss"), () => dismissTask(send, key))));
}
