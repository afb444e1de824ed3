// A card for each disk.

import { h } from "./dom.js";
import { isMounted, isUnderWay } from "./model.js";
import { eject, forceEject, mount, unmount, waitAndEject, waitAndUnmount } from "./actions.js";
import { button, room, taskView, toldView } from "./parts.js";
import { idOf, isSet, settingsView } from "./settings.js";
import { _, diskTitle, format, itemTitle, size, speed, state } from "./texts.js";
import { reason } from "./told.js";

/** @type {Record<string, string>} */
const COLOURS = {
    shared: "good", directory: "good", mounted: "note", waiting: "note", busy: "warning", unmounted: "dim",
    not_mounted: "bad", gone: "bad", absent: "dim",
};

/** @param {Item} item */
function badges(item) {
    return [
        h("span", { class: `badge ${COLOURS[item.state] ?? "dim"}` }, state(item.state)),
        item.read_only ? h("span", { class: "badge note" }, _("Read-only")) : null,
    ];
}

/** Why an item is not mounted, and what to do. @param {Item} item */
function explanation(item) {
    if (item.state === "gone")
        return h("p", { class: "why" }, format(_("$0 is to be shared, and is not there."), item.directory ?? ""));
    if (!item.reason)
        return null;
    const { why, remedy } = reason(item.reason);
    return h("p", { class: "why" }, toldView(why), remedy ? h("span", {}, ` ${_("Type:")} `, h("code", {}, remedy)) : null);
}

/** @param {Model} model @param {Send} send @param {Item} item */
function mountButtons(model, send, item) {
    if (!model.access || item.name === null)
        return null;
    const title = itemTitle(item);
    const busy = isUnderWay(model.tasks[`part ${item.name}`]);
    if (isMounted(item))
        return button(_("Unmount"), () => unmount(send, item), { disabled: busy, "aria-label": `${_("Unmount")}: ${title}` });
    if (item.state === "unmounted")
        return button(_("Mount"), () => mount(send, item), { disabled: busy, "aria-label": `${_("Mount")}: ${title}` });
    return null;
}

/** @param {Model} model @param {Send} send @param {Item} item */
export function partView(model, send, item) {
    const key = `part ${item.name}`;
    const title = itemTitle(item);
    const facts = [item.name, item.filesystem, item.directory].filter(Boolean);
    return h("section", { key: `${item.name} ${item.identity}`, class: "part", "aria-labelledby": idOf("part", item), id: idOf("place", item) },
        h("header", {},
            h("h3", { id: idOf("part", item) }, h("bdi", {}, title)),
            ...badges(item),
            h("span", { class: "end" }, mountButtons(model, send, item))),
        h("p", { class: "facts" }, h("bdi", {}, facts.join(" · "))),
        explanation(item),
        room(item, title),
        taskView(send, key, model.tasks[key], {
            busy: [
                button(_("Unmount it when it is free"), () => waitAndUnmount(send, item)),
                button(_("Take it away by force"), () => unmount(send, item, ["--force"]), { class: "button danger" }),
            ],
        }),
        item.state !== "not_mounted" || isSet(item) ? settingsView(model, send, item) : null);
}

/** @param {Model} model @param {Send} send @param {Disk} disk */
export function diskCard(model, send, { name, parts }) {
    const key = `disk ${name}`;
    const device = parts.find(part => part.device)?.device;
    const title = diskTitle(name, parts);
    const whole = parts.reduce((sum, part) => sum + (part.size_bytes ?? 0), 0);
    const facts = [name, speed(device?.speed_mbit_per_s), whole > 0 ? size(whole) : "", device?.serial].filter(Boolean);
    const busy = isUnderWay(model.tasks[key]);
    const left = parts.filter(part => !isMounted(part)).length;
    return h("article", { key, class: "card", "aria-labelledby": `disk-${name}` },
        h("header", {},
            h("div", {},
                h("h2", { id: `disk-${name}` }, h("bdi", {}, title)),
                h("p", { class: "facts" }, h("bdi", {}, facts.join(" · ")))),
            model.access && h("span", { class: "end" },
                button(_("Eject"), () => eject(send, parts), { class: "button primary", disabled: busy, "aria-label": `${_("Eject")}: ${title} (${name})` }))),
        taskView(send, key, model.tasks[key], {
            progress: [left, parts.length],
            busy: [
                button(_("Eject it when it is free"), () => waitAndEject(send, parts)),
                button(_("Take it away by force"), () => forceEject(send, parts), { class: "button danger" }),
            ],
        }),
        parts.map(part => partView(model, send, part)));
}
