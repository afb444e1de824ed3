// What vyhotplugctl and the agent say, in the language of the session. Their words are English: a sentence is
// recognised by its form, of which there is a translation, and what is not recognised stays as it is and is marked
// as English.

import { _, format, isNotDone, language, meaning } from "./texts.js";

/** @param {string} text @returns {Told} */
function own(text) {
    return [{ text, lang: null }];
}

/** @param {string} text @returns {Told} */
function foreign(text) {
    return [{ text, lang: language().startsWith("en") ? null : "en" }];
}

/** A form with its places filled. @param {string} form - in the language of the session @param {Told[]} values @returns {Told} */
function fill(form, values) {
    return form.split(/(\$\d)/).filter(Boolean).flatMap(piece => /^\$\d$/.test(piece) ? values[Number(piece[1])] ?? [] : own(piece));
}

/** @param {string} form @returns {RegExp} what it matches; a group for each place */
function patternOf(form) {
    return new RegExp(`^${form.replace(/[.*+?^(){}|[\]\\]/g, "\\$&").replace(/\$\d/g, "(.+?)")}$`, "su");
}

/**
 * How the value of a place is said: behind a colon at the end are words of others, and anywhere else are names.
 *
 * @param {string} form
 */
function sayerOf(form) {
    return (/** @type {string} */ value, /** @type {number} */ at) => form.endsWith(`: $${at}`) ? reported(value) : own(value);
}

/**
 * @param {string[]} forms
 * @param {string} text
 * @param {(value: string, at: number) => Told} [say] - how the value of a place is said, if not as sayerOf tells
 * @returns {Told | null} null where it has none of the forms
 */
function recognise(forms, text, say) {
    for (const form of forms) {
        const named = patternOf(form).exec(text)?.slice(1);
        if (named)
            return fill(_(form), named.map(say ?? sayerOf(form)));
    }
    return null;
}

/** Words that stand by themselves: an error of the system's, a message of Cockpit's. @param {string} text @returns {Told} */
function words(text) {
    const said = _(text);
    return said === text ? foreign(text) : own(said);
}

// ---- why something is not mounted ----

export const reasons = [
    "is encrypted", "is encrypted ($0)", "is a member of $0", "is a swap area", "is a swap area, with a suspended system in it",
    "has a partition table without a partition", "has no filesystem that is known", "is empty: no medium",
    "looks like several filesystems", "looks like several filesystems ($0)", "does not answer: it cannot be read in time",
    "cannot be read: $0", "holds $0, which mountfs does not name", "holds $0, which otherfs does not name",
    "holds $0, which this kernel has no module for", "holds $0, whose driver ntfs-3g is not installed",
    "holds $0, which the service cannot mount", "holds $0, but the kernel refused it", "holds $0, but the kernel refused it: $1",
    "holds $0, but ntfs-3g refused it", "holds $0, but ntfs-3g refused it: $1", "holds $0: hibernated, mounted read-only",
    "holds $0: dirty, mounted read-only", "holds $0 with a journal, or locked: mounted read-only",
    "holds $0, mounted read-only", "holds $0, mounted read-only: $1", "is the $0. disk: out of range",
    "is on the $0. disk: out of range", "is the $0. card: out of range", "is on the $0. card: out of range",
    "is the $0. partition: out of range",
];

/**
 * @param {string} text - "has no filesystem that is known; type: ..."
 * @returns {{why: Told, remedy: string} | null} null where it is none of the agent's
 */
function known(text) {
    const [why, remedy = ""] = text.split("; type: ");
    const told = recognise(reasons, why.replace(/(\d)(st|nd|rd|th) /, "$1. "));
    return told && { why: told, remedy };
}

/** A reason as the agent tells it, and what to type against it. @param {string} text */
export function reason(text) {
    const [why, remedy = ""] = text.split("; type: ");
    if (language().startsWith("en"))
        return { why: own(format("It $0.", why)), remedy };
    return known(text) ?? { why: foreign(why), remedy };
}

// ---- lines of files ----

export const mistakes = [
    "is no key", "stands behind a line in brackets, where no key is read", "stands again below, and the last line counts",
    "is no word for it", "is no number", "is out of range", "does not begin with a slash", "is no user id",
];
export const endings = ["; it is passed over", "; $0 is taken"];
export const advice = [", write $0", ", accepted: $0"];
export const values = [
    "it into otherfs", "it into mountfs", "it into mountflags", "the product's own server", "full access", "no mount at all",
    "nothing of this device", "$0 without a blank behind it", "$0 for $1", "0 to $0, octal", "0 to $0",
];

const finding = new RegExp(`^(.+?) (${mistakes.join("|")})(, (?:write|accepted:) .+)?(; (?:it is passed over|.+ is taken))$`, "su");

/** @param {string} text - "mountfs: ntsf is no word for it, write ntfs; it is passed over" @returns {Told | null} */
function mistake(text) {
    const [, about, what, hint = "", ending] = finding.exec(text) ?? [];
    if (about === undefined)
        return null;
    const value = (/** @type {string} */ one) => recognise(values, one) ?? own(one);
    return [
        ...own(`${about.replace("(nothing)", _("(nothing)"))} ${_(what)}`),
        ...recognise(advice, hint, value) ?? own(hint),
        ...recognise(endings, ending, value) ?? own(ending),
    ];
}

// ---- problems ----

/** What stands behind a colon at the end of a sentence. @param {string} text @returns {Told} */
function reported(text) {
    const told = known(text);
    const type = told?.remedy ? own(` ${_("Type:")} ${told.remedy}`) : [];
    return told ? [...told.why, ...type] : mistake(text) ?? words(text);
}

/** @param {Problem} one @returns {Told} */
export function problem({ text, form, arguments: named }) {
    const translated = _(form);
    if (translated === form && /[a-z]/.test(form))
        return foreign(/^[a-z]/.test(form) ? text[0].toUpperCase() + text.slice(1) : text);
    return fill(translated, named.map(sayerOf(form)));
}

/** @param {Problem} one */
export function remedyOf(one) {
    return _(one.remedy);
}

// ---- why something was not done ----

// What an exit status says by itself is not read.
export const refusals = [
    "the service is not running, or what answers is not root's", "the service does not answer",
    "the service has ended; the change is in the file, and counts from its next start",
    "the change is in the file; the service: $0", "the change may be in the file all the same: $0",
    "the service does not hold the change: others write the device file at the same moment",
    "the change is in the file, but the service has not taken it; is /tmp full, or read-only?",
    "the service runs with another configuration, nothing is changed; use -f $0",
    "$0 could not be mounted; what the service told: journalctl -u vyhotplugd", "$0 could not be mounted: $1",
    "$0 stays mounted", "$0 is unmounted, but not switched off: $1", "$0 has no settings before the service shares it",
    "another vyhotplugctl holds $0, and does not go on", "what others wrote meanwhile is in $0, and not in the file",
];
export const faults = [
    "another share has that name, of $0; of two with one name only one is shared",
    "holds a control character, or bytes that are not UTF-8", "begins or ends with a blank, which would be lost",
    "holds a bracket, which no share's name can", "has $0 bytes, and $1 are kept; this fits: \"$2\"", "no such user: $0",
    "are more users than fit; let a group own the files instead",
    "has a number beyond 2147483647, which the service does not take: $0",
];

/** @type {Record<string, () => string>} */
const settings = {
    share: () => _("Share name"), comment: () => _("Comment"), full: () => _("Who may"), readers: () => _("Who may"),
    blocked: () => _("Who may"), hidden: () => _("Who may"),
};

/** @param {string} line @returns {Told} */
function refusal(line) {
    const told = recognise(refusals, line);
    if (told)
        return told;
    const [, about = "", what = ""] = /^(.+?): (.+)$/su.exec(line) ?? [];
    const fault = settings[about] && recognise(faults, what, own);
    if (fault)
        return [...own(`${settings[about]()}: `), ...fault];
    return about && _(what) !== what ? own(`${about}: ${_(what)}`) : words(line);
}

/** @param {string} message @returns {string[]} without who says it */
function linesOf(message) {
    return message.split("\n").map(line => line.replace(/^vyhotplugctl: /, "").trimEnd());
}

/**
 * What a failed call has printed, without what was worth a note only and without who holds the disk.
 *
 * @param {string} message
 * @returns {Told}
 */
export function printed(message) {
    const wanted = linesOf(message).filter(line => line !== "" && !/^( |note: |.* is busy:$)/.test(line));
    return wanted.flatMap((line, at) => [...at > 0 ? own(" ") : [], ...refusal(line)]);
}

// What a disk is in use for that is not the service's; whose that mount is; why it may not be seen.
export const uses = [
    "$0 is mounted elsewhere, by somebody else: $1", "$0 is part of another device: LVM, RAID or encryption",
    "$0 is a swap area in use",
];
export const owners = ["$0 of process $1 ($2)"];
export const unseen = ["what else uses it cannot be seen: $0"];

/** @param {string} message @returns {Told[]} a sentence for each such use that it tells of */
export function usesIn(message) {
    const named = (/** @type {string} */ one) => recognise(owners, one, own) ?? own(one);
    return linesOf(message).flatMap(line => {
        const told = recognise(uses, line, named) ?? recognise(unseen, line);
        return told ? [told] : [];
    });
}

/** A sentence or two on what failed. @param {{verb: string, status: number | null, message: string}} task @returns {Told} */
export function failure({ verb, status, message }) {
    if (/the change (is|may be) in the file/.test(message))
        return printed(message);
    const why = meaning(status);
    return [...own(`${isNotDone(verb)} `), ...why ? own(why) : printed(message)];
}
