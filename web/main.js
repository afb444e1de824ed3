// Starts the watching, and draws the page whenever something is new. Nothing is asked for by a clock, but when the
// watching has failed.

import { ask, watch } from "./ctl.js";
import { patch } from "./dom.js";
import { followFocus, keepingFocus } from "./focus.js";
import { happeningOf, nothing, update } from "./model.js";
import { pageView } from "./page.js";
import { tellAloud } from "./tell.js";
import { followTheme } from "./theme.js";
import { _, happening, language } from "./texts.js";

const TOGETHER_MS = 100; // events that come so near to each other have one look after them
const AGAIN_MS = 5000; // after the watching has failed

const page = /** @type {HTMLElement} */ (document.getElementById("page"));
let model = nothing;
let drawing = false;

/** @param {{type: string, [detail: string]: any}} event */
function send(event) {
    model = update(model, event);
    if (event.type === "notice")
        tellAloud(event.text);
    if (drawing)
        return;
    drawing = true;
    // Frames stand still in a page that is not to be seen.
    setTimeout(draw);
}

function draw() {
    drawing = false;
    keepingFocus(() => patch(page, /** @type {any} */ (pageView(model, send, check))));
}

// ---- looking ----

let looking = false;
let due = false;

/** Has one look at all that there is; another one when something has happened meanwhile. */
async function look() {
    due = true;
    if (looking)
        return;
    looking = true;
    while (due) {
        await new Promise(resolve => setTimeout(resolve, TOGETHER_MS));
        due = false;
        const { told: status, answer } = await ask("status", "--all");
        if (status)
            send({ type: "status", status });
        else
            send({ type: "lost", reason: answer.message || String(answer.problem) });
    }
    looking = false;
}

async function lookAtUsers() {
    const { told: answer } = await ask("users");
    if (answer)
        send({ type: "users", users: answer.users });
}

async function check() {
    send({ type: "checking" });
    const { told: answer } = await ask("check");
    send({ type: "check", found: answer?.problems });
}

/** @param {any} line */
function takeLine(line) {
    send({ type: "watch", line });
    look();
    if (line.event === "present")
        return;
    tellAloud(happening(happeningOf(line)));
    if (line.event.startsWith("service_"))
        check();
}

async function watchOn() {
    for (;;) {
        const over = watch(takeLine);
        look();
        const answer = await over;
        send({ type: "lost", reason: answer.message || String(answer.problem) });
        await new Promise(resolve => setTimeout(resolve, AGAIN_MS));
    }
}

// ---- the session ----

const permission = cockpit.permission({ admin: true });

function followAccess() {
    const before = model.access;
    send({ type: "access", allowed: permission.allowed });
    if (before !== permission.allowed && permission.allowed !== null) {
        lookAtUsers();
        check();
    }
}

function start() {
    document.title = _("Plugged storage");
    document.documentElement.lang = language();
    followTheme();
    followFocus();
    permission.addEventListener("changed", followAccess);
    followAccess();
    watchOn();
}

start();
