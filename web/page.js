// The whole page, of what is known.

import { h } from "./dom.js";
import { directories, disks } from "./model.js";
import { button, toldView } from "./parts.js";
import { diskCard, partView } from "./cards.js";
import { eventsView, knownView, problemsView } from "./lists.js";
import { _ } from "./texts.js";
import { printed } from "./told.js";

/** @param {Model} model */
function warnings(model) {
    return [
        model.lost !== null && h("div", { key: "lost", class: "alert danger", role: "alert" },
            h("p", {}, _("Nothing can be told of the disks. It is tried again in a moment.")), h("p", {}, toldView(printed(model.lost)))),
        model.loaded && model.lost === null && !model.runs && h("div", { key: "ended", class: "alert danger", role: "alert" },
            h("p", {}, _("The service is not running: nothing is mounted or shared, and nothing can be changed.")),
            h("p", {}, `${_("What to do:")} `, h("code", {}, "systemctl start vyhotplugd"))),
        model.access === false && h("div", { key: "access", class: "alert" },
            h("p", {}, _("You see what is there. To change something, turn on administrative access."))),
    ];
}

/** @param {Model} model @param {Send} send */
function notices(model, send) {
    return model.notices.map(notice => h("div", { key: `notice ${notice.id}`, class: "alert success" },
        h("p", {}, notice.text),
        button(_("Dismiss"), () => send({ type: "dismiss", id: notice.id }))));
}

/** @param {Model} model @param {Send} send @param {() => void} check */
export function pageView(model, send, check) {
    const plugged = disks(model);
    const shared = directories(model);
    return [
        h("h1", {}, _("Plugged storage")),
        ...warnings(model),
        ...notices(model, send),
        !model.loaded && h("p", { key: "loading", class: "hint" }, _("Looking ...")),
        model.loaded && plugged.length === 0 && h("p", { key: "none", class: "empty" },
            _("Nothing is plugged. A USB disk or a memory card appears here by itself.")),
        h("div", { key: "cards", class: "cards" }, plugged.map(disk => diskCard(model, send, disk))),
        shared.length > 0 && h("section", { key: "directories", class: "list", "aria-labelledby": "directories" },
            h("h2", { id: "directories" }, _("Directories of this machine")),
            shared.map(item => h("article", { key: item.identity ?? "", class: "card" }, partView(model, send, item)))),
        problemsView(model, check),
        knownView(model, send),
        eventsView(model),
    ].filter(Boolean);
}
