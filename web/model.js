// What the page knows: a function of what it knew and of what happened. Touches no world.

const HAPPENINGS = 200; // that are kept

/** @type {Model} */
export const nothing = {
    loaded: false, lost: null, runs: false, access: null, items: [], known: [], seen: [], found: [], checking: false,
    users: null, happenings: [], tasks: {}, drafts: {}, open: {}, notices: [],
};

/** @type {Record<string, (model: Model, event: any) => Model>} */
const reactions = {
    access: (model, { allowed }) => ({ ...model, access: allowed }),
    lost: (model, { reason }) => ({ ...model, lost: reason, loaded: true }),
    status: takeStatus,
    watch: takeLine,
    users: (model, { users }) => ({ ...model, users }),
    check: (model, { found }) => ({ ...model, checking: false, found: found ?? model.found }),
    checking: model => ({ ...model, checking: true }),
    task: (model, { key, task }) => ({ ...model, tasks: without(model.tasks, key, task) }),
    open: (model, { key, form, draft }) => ({
        ...model, open: without(model.open, key, form), drafts: without(model.drafts, key, draft),
    }),
    draft: (model, { key, change }) => ({
        ...model, drafts: { ...model.drafts, [key]: { ...model.drafts[key], ...change } },
    }),
    notice: (model, { text }) => ({
        ...model, notices: [...model.notices, { id: (model.notices.at(-1)?.id ?? 0) + 1, text }].slice(-5),
    }),
    dismiss: (model, { id }) => ({ ...model, notices: model.notices.filter(notice => notice.id !== id) }),
};

/**
 * @param {Model} model
 * @param {{type: string, [detail: string]: any}} event
 * @returns {Model} the next one; the same where nothing changes
 */
export function update(model, event) {
    const react = reactions[event.type];
    return react ? react(model, event) : model;
}

/**
 * A table with one value put in, or, for undefined, taken out.
 *
 * @template T
 * @param {Record<string, T>} table
 * @param {string} key
 * @param {T | undefined} value
 * @returns {Record<string, T>}
 */
function without(table, key, value) {
    const { [key]: _old, ...rest } = table;
    return value === undefined ? rest : { ...rest, [key]: value };
}

/** @param {Item} a @param {Item} b */
function isSame(a, b) {
    if (a.name !== b.name)
        return false;
    const unknown = a.name !== null && (a.identity === null || b.identity === null);
    return unknown || a.identity === b.identity;
}

/** @param {Model} model @param {{status: any}} event */
function takeStatus(model, { status }) {
    /** @type {Item[]} */
    const all = status.items;
    const known = all.filter(item => item.state === "absent");
    const next = {
        ...model, loaded: true, lost: null, runs: status.service_runs, seen: status.problems, known,
        items: all.filter(item => item.state !== "absent"),
    };
    return forgetGone(next);
}

/** Tasks, forms and drafts of what is no longer there go, unless they still run. @param {Model} model */
function forgetGone(model) {
    const keys = new Set([...model.items, ...model.known].flatMap(item => [
        item.identity ?? "", item.name ?? "", item.name ? diskOf(item.name) : "",
    ]));
    /** @type {(key: string) => boolean} */
    const isThere = key => keys.has(key.replace(/^\w+ /, ""));
    const tasks = Object.entries(model.tasks).filter(
        ([key, task]) => isThere(key) || isUnderWay(task));
    return {
        ...model, tasks: Object.fromEntries(tasks),
        open: Object.fromEntries(Object.entries(model.open).filter(([key]) => isThere(key))),
        drafts: Object.fromEntries(Object.entries(model.drafts).filter(([key]) => isThere(key))),
    };
}

/** A line of `watch`. @param {Model} model @param {{line: any}} event @returns {Model} */
function takeLine(model, { line }) {
    const noted = line.event === "present" ? model : note(model, line);
    if (line.item === null || line.item === undefined)
        return { ...noted, runs: line.event === "service_started" || (noted.runs && line.event !== "service_ended") };
    /** @type {Item} */
    const item = line.item;
    if (line.event === "pulled" || line.event === "forgotten") {
        /** @type {(items: Item[]) => Item[]} */
        const rest = items => items.filter(other => !isSame(other, item));
        return forgetGone({ ...noted, items: rest(noted.items), known: rest(noted.known) });
    }
    if (item.state === "absent")
        return { ...noted, known: noted.known.map(other => isSame(other, item) ? item : other) };
    const at = noted.items.findIndex(other => isSame(other, item));
    const items = at < 0 ? [...noted.items, item] : noted.items.map((other, index) => index === at ? item : other);
    return { ...noted, items, known: noted.known.filter(other => other.identity !== item.identity) };
}

/** @param {any} line - of `watch` @returns {Happening} */
export function happeningOf({ time_s, event, item }) {
    return { time_s, event, name: item?.name ?? item?.identity ?? "", share: item?.share ?? null };
}

/** @param {Model} model @param {any} line @returns {Model} */
function note(model, line) {
    return { ...model, happenings: [happeningOf(line), ...model.happenings].slice(0, HAPPENINGS) };
}

// ---- what follows from it ----

/** The disk that a partition is on, by the service's names: "sda" of "sda1". @param {string} name */
export function diskOf(name) {
    return name.replace(/\d+$/, "");
}

/** The disks in the order in which they came, with their partitions by number. @param {Model} model @returns {Disk[]} */
export function disks(model) {
    /** @type {Map<string, Item[]>} */
    const found = new Map();
    for (const item of model.items.filter(one => one.name !== null)) {
        const name = diskOf(item.name ?? "");
        found.set(name, [...found.get(name) ?? [], item]);
    }
    /** @type {(item: Item) => number} */
    const number = item => Number(/\d*$/.exec(item.name ?? "")?.[0]);
    return [...found].map(([name, parts]) => ({ name, parts: parts.sort((a, b) => number(a) - number(b)) }));
}

/** Directories of the machine itself that are shared. @param {Model} model */
export function directories(model) {
    return model.items.filter(item => item.name === null);
}

/** @param {Task | undefined} task */
export function isUnderWay(task) {
    return task?.phase === "running" || task?.phase === "waiting";
}

/** @param {Item} item */
export function isMounted(item) {
    return ["shared", "mounted", "busy"].includes(item.state);
}

/** Problems that `check` may tell of where `status` does not: it asks programs. */
export const THOROUGH = ["samba_no_users"];

/**
 * The problems: those that are seen at once, as they are now, and what only a thorough look finds.
 *
 * @param {Model} model
 * @returns {Problem[]}
 */
export function problems(model) {
    const isSeen = (/** @type {Problem} */ problem) => model.seen.some(seen => seen.id === problem.id);
    const all = [...model.seen, ...model.found.filter(problem => THOROUGH.includes(problem.id) && !isSeen(problem))];
    return [...all.filter(problem => problem.severity !== "note"), ...all.filter(problem => problem.severity === "note")];
}

const ROLES = ["full", "readers", "blocked", "hidden"];
/** @type {Record<string, "full_users" | "reading_users" | "blocked_users" | "hidden_users">} */
const LISTS = { full: "full_users", readers: "reading_users", blocked: "blocked_users", hidden: "hidden_users" };

/** The role of each user who has one, by number. @param {Item} item @returns {Record<string, string>} */
export function roles(item) {
    /** @type {Record<string, string>} */
    const found = {};
    for (const role of ROLES)
        for (const user of item.settings?.[LISTS[role]] ?? [])
            found[user.uid] = role;
    return found;
}

/**
 * Everybody who may be chosen for an item: the machine's users, and who is set already.
 *
 * @param {Model} model
 * @param {Item} item
 * @returns {User[]}
 */
export function choices(model, item) {
    const users = model.users ?? [];
    const set = new Map(ROLES.flatMap(role => item.settings?.[LISTS[role]] ?? []).map(one => [one.uid, one]));
    const others = [...set.values()].filter(one => !users.some(user => user.uid === one.uid));
    return [...users, ...others.map(one => ({ ...one, full_name: null, samba_password: null }))];
}

/** What `set` is to be given for roles by number. @param {Record<string, string>} chosen */
export function roleWords(chosen) {
    return ROLES.map(role => {
        const uids = Object.keys(chosen).filter(uid => chosen[uid] === role);
        return `${role}=${uids.join(",")}`;
    });
}

/** What `set` is to be given for a name and a comment. @param {{share: string, comment: string}} names */
export function nameWords({ share, comment }) {
    return [`share=${share}`, `comment=${comment}`];
}

const NAME_BYTES = 34;
const COMMENT_BYTES = 63;

/**
 * Why a share cannot be called so, or have that comment; null where it can.
 *
 * @param {Model} model
 * @param {Item} item
 * @param {{share: string, comment: string}} draft
 * @returns {"name_long" | "name_blank" | "name_sign" | "name_used" | "comment_long" | "comment_sign" | null}
 */
export function faultOf(model, item, { share, comment }) {
    const bytes = (/** @type {string} */ text) => new TextEncoder().encode(text).length;
    if (bytes(share) > NAME_BYTES)
        return "name_long";
    if (share.trim() !== share)
        return "name_blank";
    if (/[[\]\p{Cc}]/u.test(share))
        return "name_sign";
    const used = [...model.items, ...model.known].some(other => other.identity !== item.identity &&
        share !== "" && (other.share ?? other.settings?.share_name ?? "").toLowerCase() === share.toLowerCase());
    if (used)
        return "name_used";
    if (bytes(comment) > COMMENT_BYTES)
        return "comment_long";
    return /\p{Cc}/u.test(comment) ? "comment_sign" : null;
}
