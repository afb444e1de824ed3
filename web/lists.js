// What stands below the cards: known disks, problems, events.

import { h } from "./dom.js";
import { problems } from "./model.js";
import { button, toldView } from "./parts.js";
import { idOf, settingsView } from "./settings.js";
import { _, clock, happening, itemTitle, plural } from "./texts.js";
import { problem, remedyOf } from "./told.js";

/** @param {Model} model @param {Send} send */
export function knownView(model, send) {
    return h("section", { key: "known", class: "list", "aria-labelledby": "known" },
        h("h2", { id: "known" }, _("Known disks that are not plugged")),
        model.known.length === 0 && h("p", { class: "hint" }, _("None has settings.")),
        model.known.map(item => h("article", { key: item.identity ?? "", class: "card", "aria-labelledby": idOf("known", item) },
            h("header", {}, h("div", {},
                h("h3", { id: idOf("known", item) }, h("bdi", {}, itemTitle(item))),
                h("p", { class: "facts" }, h("bdi", {}, item.identity ?? "")))),
            settingsView(model, send, item))));
}

/** @param {Problem} one @param {string} kind */
function problemLine(one, kind) {
    return h("li", { class: `alert ${kind}` },
        h("p", {}, h("strong", {}, h("bdi", {}, toldView(problem(one))))),
        h("p", {}, `${_("What to do:")} `, one.remedy_kind === "prose" ? h("span", {}, remedyOf(one)) : h("code", {}, remedyOf(one))));
}

/** @param {Model} model @param {() => void} check */
export function problemsView(model, check) {
    const all = problems(model);
    const notes = all.filter(one => one.severity === "note");
    return h("section", { key: "problems", class: "list", "aria-labelledby": "problems" },
        h("h2", { id: "problems" }, _("Problems")),
        all.length === notes.length && h("p", { class: "hint" }, model.checking ? _("Looking ...") : _("None was found.")),
        h("ul", { class: "problems" }, all.filter(one => one.severity !== "note").map(one => problemLine(one, "warning"))),
        notes.length > 0 && h("details", {},
            h("summary", {}, plural("$0 thing worth knowing", "$0 things worth knowing", notes.length)),
            h("ul", { class: "problems" }, notes.map(one => problemLine(one, "")))),
        button(_("Look again"), check, { disabled: model.checking }));
}

/** @param {Model} model */
export function eventsView(model) {
    return h("section", { key: "events", class: "list", "aria-labelledby": "events" },
        h("h2", { id: "events" }, _("Events of this session")),
        model.happenings.length === 0 && h("p", { class: "hint" }, _("Nothing has happened yet.")),
        h("ol", { class: "events" }, model.happenings.map(one => h("li", {},
            h("time", {}, clock(one.time_s)), " ", h("bdi", {}, happening(one))))));
}
