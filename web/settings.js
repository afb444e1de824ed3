// The settings of a partition, of a shared directory, or of a disk that is not plugged.

import { h } from "./dom.js";
import { choices, faultOf, isUnderWay, nameWords, roles, roleWords } from "./model.js";
import { askForget, closeForm, dismissTask, forget, set, setForm, settingsKey } from "./actions.js";
import { button, taskView } from "./parts.js";
import { _, access, faultText, format, itemTitle, roleTexts, withoutPassword } from "./texts.js";

/** @type {[string, "read_only" | "guest" | "hide_from_guests", () => string][]} */
const switches = [
    ["read-only", "read_only", () => _("Read-only")],
    ["guest", "guest", () => _("Guests may enter")],
    ["hide-from-guests", "hide_from_guests", () => _("Hidden from guests")],
];

/** An id for an element of an item's. @param {string} kind @param {Item} item */
export function idOf(kind, item) {
    return `${kind}-${item.identity ?? item.name}`.replace(/[^\w-]/g, sign => `_${sign.charCodeAt(0).toString(16)}`);
}

/** Puts the focus back to the button that a form came from. @param {string} id */
function focusSoon(id) {
    setTimeout(() => document.getElementById(id)?.focus());
}

/**
 * A form that is saved or given up.
 *
 * @param {object} form
 * @param {Model} form.model
 * @param {Send} form.send
 * @param {Item} form.item
 * @param {string} form.name - and that of the button that it came from
 * @param {boolean} form.busy
 * @param {boolean} [form.wrong] - it cannot be saved so
 * @param {(form: any) => string[] | null} form.read - what `set` is to be given, newer than what was drawn; null: not yet
 * @param {...any} content
 */
function formView({ model, send, item, name, busy, wrong = false, read }, ...content) {
    const key = item.identity ?? "";
    const back = idOf(name, item);
    const cancel = () => {
        closeForm(send, item);
        focusSoon(back);
    };
    return h("form", {
        key: `${name}-form`, class: "form",
        onsubmit: async (/** @type {Event} */ event) => {
            event.preventDefault();
            const words = read(event.target);
            if (words === null)
                return;
            await setForm(send, item, words, model.drafts[key]?.was ?? []);
            focusSoon(back);
        },
        onkeydown: (/** @type {KeyboardEvent} */ event) => {
            if (event.key === "Escape") // nothing is returned: false would swallow the key
                cancel();
        },
    },
    ...content,
    h("div", { class: "buttons" },
        h("button", { type: "submit", class: "button primary", disabled: busy || wrong }, _("Save")),
        button(_("Cancel"), cancel, { disabled: busy })));
}

/** @param {Model} model @param {Send} send @param {Item} item @param {boolean} busy */
function namesForm(model, send, item, busy) {
    const key = item.identity ?? "";
    const draft = { share: "", comment: "", ...model.drafts[key] };
    const fault = faultOf(model, item, draft);
    const field = (/** @type {"share" | "comment"} */ name, /** @type {string} */ label, /** @type {boolean} */ first) =>
        h("label", { class: "field" }, h("span", {}, label), h("input", {
            type: "text", class: "input", name, value: draft[name], focus: first, disabled: busy, autocomplete: "off",
            "aria-describedby": fault ? idOf("fault", item) : null,
            "aria-invalid": fault?.startsWith(name === "share" ? "name" : "comment") ? "true" : null,
            oninput: (/** @type {any} */ event) => send({ type: "draft", key, change: { [name]: event.target.value } }),
        }));
    const read = (/** @type {any} */ { elements: { share, comment } }) => {
        const names = { share: share.value, comment: comment.value };
        return faultOf(model, item, names) ? null : nameWords(names);
    };
    return formView({ model, send, item, name: "names", busy, wrong: Boolean(fault), read },
        field("share", _("Share name"), true),
        field("comment", _("Comment"), false),
        fault && h("p", { class: "fault", id: idOf("fault", item), role: "alert" }, faultText(fault)));
}

/**
 * The roles that a form shows, by number: newer than what was drawn.
 *
 * @param {HTMLFormElement} form
 * @returns {Record<string, string>}
 */
function chosenIn(form) {
    return Object.fromEntries([...form.querySelectorAll("select")].map(select => [select.name, select.value]));
}

/** @param {Model} model @param {Send} send @param {Item} item @param {boolean} busy */
function usersForm(model, send, item, busy) {
    const key = item.identity ?? "";
    const chosen = model.drafts[key]?.users ?? roles(item);
    const users = choices(model, item);
    const row = (/** @type {(typeof users)[0]} */ user, /** @type {number} */ at) => {
        const role = chosen[user.uid] ?? "";
        const without = withoutPassword(user);
        const label = user.full_name ? `${user.name} (${user.full_name})` : user.name;
        return h("label", { key: String(user.uid), class: "field user" },
            h("span", {}, label, without ? h("em", { class: "hint" }, ` ${without}`) : null),
            h("select", {
                class: "input", name: String(user.uid), value: role, focus: at === 0, disabled: busy,
                onchange: (/** @type {any} */ event) => send({ type: "draft", key, change: { users: chosenIn(event.target.form) } }),
            }, roleTexts.map(([word, say]) => h("option", { value: word }, say()))));
    };
    return formView({ model, send, item, name: "users", busy, read: form => roleWords(chosenIn(form)) },
        h("p", { class: "hint" }, _("When nobody is chosen who reads or writes, everybody with a password may.")),
        users.length > 0 ? users.map(row) : h("p", {}, _("This machine has no users.")));
}

/** @param {Item} item */
export function isSet(item) {
    const settings = item.settings;
    return settings !== null && Object.values(settings).some(value =>
        Array.isArray(value) ? value.length > 0 : value !== null && value !== false && value !== "full");
}

/** @param {Model} model @param {Send} send @param {Item} item */
function controls(model, send, item) {
    const key = item.identity ?? "";
    const title = itemTitle(item);
    const form = model.open[key];
    const task = model.tasks[settingsKey(item)];
    const busy = isUnderWay(task);
    const open = (/** @type {string} */ name) => {
        dismissTask(send, settingsKey(item));
        const names = { share: item.settings?.share_name ?? "", comment: item.settings?.comment ?? "" };
        const users = roles(item);
        send({
            type: "open", key, form: form === name ? undefined : name,
            draft: name === "names" ? { ...names, was: nameWords(names) } : { users, was: roleWords(users) },
        });
    };
    const toggle = (/** @type {(typeof switches)[0]} */ [word, name, say]) => h("label", { class: "switch" },
        h("input", {
            type: "checkbox", checked: item.settings?.[name] ?? false, disabled: busy,
            "aria-label": `${title}: ${say()}`,
            onchange: (/** @type {any} */ event) => {
                const wanted = event.target.checked;
                event.target.checked = item.settings?.[name] ?? false; // until the service holds it
                set(send, item, [`${word}=${wanted ? "yes" : "no"}`]);
            },
        }), h("span", {}, say()));
    const opener = (/** @type {string} */ name, /** @type {string} */ text) => button(text, () => open(name), {
        id: idOf(name, item), disabled: busy, "aria-expanded": String(form === name), "aria-label": `${text}: ${title}`,
    });
    return [
        h("div", { class: "switches" }, switches.map(toggle)),
        h("div", { class: "buttons" },
            opener("names", _("Name and comment")),
            opener("users", _("Who may")),
            isSet(item) && button(_("Forget"), () => askForget(send, item), {
                disabled: busy, "aria-label": `${_("Forget")}: ${title}`,
            })),
        form === "names" && namesForm(model, send, item, busy),
        form === "users" && usersForm(model, send, item, busy),
        taskView(send, settingsKey(item), task, {
            asked: [
                h("p", {}, format(_("All settings of $0 go: its name, its comment, and who may."), title)),
                h("div", { class: "buttons" },
                    button(_("Forget all settings"), () => forget(send, item), { class: "button danger", focus: true }),
                    button(_("Keep them"), () => dismissTask(send, settingsKey(item)))),
            ],
        }),
    ];
}

/** What is set, and, where it is allowed, what changes it. @param {Model} model @param {Send} send @param {Item} item */
export function settingsView(model, send, item) {
    const offered = model.access && item.identity !== null;
    const words = switches.filter(([, name]) => item.settings?.[name]).map(([, , say]) => say());
    return h("div", { class: "settings" },
        item.settings?.comment ? h("p", { class: "comment" }, item.settings.comment) : null,
        h("p", {}, access(item)),
        !offered && words.length > 0 && h("p", {}, words.join(", ")),
        offered ? controls(model, send, item) : null);
}
