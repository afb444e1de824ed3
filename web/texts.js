// What is said, in the language of the session.

/** @type {(text: string) => string} */
const _ = text => cockpit.gettext(text);
/** @type {(text: string, ...values: (string | number)[]) => string} */
const format = (text, ...values) => text.replace(/\$(\d)/g, (_all, at) => String(values[Number(at)] ?? ""));

export { _, format };

/** @param {string} one @param {string} many @param {number} count */
export function plural(one, many, count) {
    return format(cockpit.ngettext(one, many, count), count);
}

/** @param {number} bytes */
export function size(bytes) {
    const units = ["B", "kB", "MB", "GB", "TB", "PB"];
    let step = 0;
    let amount = bytes;
    for (; amount >= 999.5 && step < units.length - 1; step++)
        amount /= 1000;
    const digits = amount < 10 && step > 0 ? 1 : 0;
    const number = new Intl.NumberFormat(language(), { maximumFractionDigits: digits, minimumFractionDigits: digits });
    return `${number.format(amount)} ${units[step]}`;
}

export function language() {
    return (cockpit.language || "en").replace("_", "-");
}

/** @param {number} time_s */
export function clock(time_s) {
    return new Date(time_s * 1000).toLocaleTimeString(language());
}

/** @type {Record<string, () => string>} */
const states = {
    shared: () => _("Shared"),
    mounted: () => _("Mounted, not shared"),
    busy: () => _("Busy: its share is withdrawn"),
    unmounted: () => _("Unmounted"),
    not_mounted: () => _("Not mounted"),
    waiting: () => _("Just plugged"),
    directory: () => _("Shared"),
    gone: () => _("Missing"),
    absent: () => _("Not plugged"),
};

/** @param {string} word */
export function state(word) {
    return states[word]?.() ?? word;
}

/** What a disk is: the maker's words, or else its kind. @param {string} disk @param {Item[]} parts */
export function diskTitle(disk, parts) {
    const device = parts.find(part => part.device)?.device;
    const words = [device?.vendor, device?.product].filter(word => word?.trim()).join(" ");
    if (words)
        return words;
    return disk.startsWith("mmcblk") ? _("Memory card") : _("Disk");
}

/** @param {number | null | undefined} mbit */
export function speed(mbit) {
    if (!mbit)
        return "";
    const generation = mbit >= 5000 ? "USB 3" : mbit >= 480 ? "USB 2" : "USB 1";
    return format(_("$0, $1 Mbit/s"), generation, new Intl.NumberFormat(language()).format(mbit));
}

/** What an item is called. @param {Item} item */
export function itemTitle(item) {
    return item.share ?? item.settings?.share_name ?? item.label ?? item.name ?? item.identity ?? "";
}

/** Who may enter. @param {Item} item */
export function access(item) {
    const everybody = item.read_only ? _("Everybody with a password may read.") : _("Everybody with a password may read and write.");
    const settings = item.settings;
    if (!settings)
        return everybody;
    const names = (/** @type {{name: string}[]} */ users) => users.map(user => user.name).join(", ");
    const { full_users: full, reading_users: reading, blocked_users: blocked, hidden_users: hidden } = settings;
    const writers = item.read_only ? [] : full;
    const readers = item.read_only ? [...full, ...reading] : reading;
    const words = [];
    if (writers.length + readers.length === 0)
        words.push(everybody);
    if (writers.length > 0)
        words.push(format(_("May read and write: $0."), names(writers)));
    if (readers.length > 0)
        words.push(format(_("May read: $0."), names(readers)));
    if (blocked.length > 0)
        words.push(format(_("May not enter: $0."), names(blocked)));
    if (hidden.length > 0)
        words.push(format(_("Do not see it: $0."), names(hidden)));
    if (settings.hide_from_guests)
        words.push(_("Guests may not enter, and do not see it."));
    else if (settings.guest)
        words.push(_("Guests may enter."));
    return words.join(" ");
}

// ---- events ----

/** @type {Record<string, () => string>} */
const happenings = {
    plugged: () => _("$0 is plugged."),
    mounted: () => _("$0 is mounted."),
    shared: () => _("$0 is shared as $1."),
    changed: () => _("The settings of $0 have changed."),
    busy: () => _("$0 is busy and stays mounted."),
    unmounted: () => _("$0 is unmounted."),
    not_mounted: () => _("$0 could not be mounted."),
    pulled: () => _("$0 is pulled."),
    forgotten: () => _("$0 has no settings any more."),
    service_started: () => _("The service has started."),
    service_ended: () => _("The service has ended."),
};

/** @param {Happening} happening */
export function happening({ event, name, share }) {
    return format(happenings[event]?.() ?? event, name, share ?? "");
}

// ---- what was asked for ----

/** @type {Record<string, () => string>} */
const attempts = {
    set: () => _("Nothing was changed."),
    forget: () => _("Nothing was forgotten."),
    mount: () => _("It was not mounted."),
    unmount: () => _("It was not unmounted."),
    force: () => _("It was not taken away."),
    eject: () => _("It was not ejected: do not pull it yet."),
};

/** @type {Record<string, () => string>} */
const running = {
    set: () => _("Saving ..."),
    forget: () => _("Forgetting ..."),
    mount: () => _("Mounting ..."),
    unmount: () => _("Unmounting ..."),
    force: () => _("Taking it away ..."),
    eject: () => _("Ejecting ..."),
};

/** @param {string} verb */
export function isRunning(verb) {
    return running[verb]?.() ?? verb;
}

/** What has not happened. @param {string} verb */
export function isNotDone(verb) {
    return attempts[verb]?.() ?? "";
}

/** @type {Record<number, () => string>} */
const statuses = {
    3: () => _("The service is not running."),
    4: () => _("It is busy."),
    5: () => _("It is no longer there."),
};

/** What the exit status of vyhotplugctl means; "" where that is not one thing. @param {number | null} status */
export function meaning(status) {
    return statuses[status ?? -1]?.() ?? "";
}

/** @type {Record<string, () => string>} */
const faults = {
    name_long: () => _("The name is too long: 34 bytes are kept, and most letters beyond a to z take two."),
    name_blank: () => _("The name begins or ends with a blank."),
    name_sign: () => _("The name holds a bracket or a control character."),
    name_used: () => _("Another share has that name."),
    comment_long: () => _("The comment is too long: 63 bytes are kept."),
    comment_sign: () => _("The comment holds a control character."),
};

/** @param {string} fault */
export function faultText(fault) {
    return faults[fault]?.() ?? fault;
}

/** @type {Record<string, () => string>} */
const uses = {
    file: () => _("has a file open"),
    directory: () => _("works in a directory"),
    root: () => _("has its root there"),
    program: () => _("is a program from there"),
    map: () => _("has a file in memory"),
};

/** @param {Holder} holder */
export function use(holder) {
    return uses[holder.use]?.() ?? holder.use;
}

/** What keeps a user out, whatever is chosen; "" where nothing does, or nobody can tell. @param {User} user */
export function withoutPassword(user) {
    if (user.samba_password === false)
        return _("has no Samba password");
    return user.ksmbd_password === false ? _("has no ksmbd password") : "";
}

/** @type {[string, () => string][]} */
export const roleTexts = [
    ["", () => _("not chosen")],
    ["full", () => _("reads and writes")],
    ["readers", () => _("reads")],
    ["blocked", () => _("may not enter")],
    ["hidden", () => _("does not see it")],
];
