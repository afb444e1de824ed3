// What docs/json.md tells of, and what the page keeps. For TypeScript's checker alone: no browser loads it.

interface Named {
    uid: number;
    name: string;
}

interface Settings {
    share_name: string | null;
    comment: string | null;
    path: string | null;
    read_only: boolean;
    guest: boolean;
    hide_from_guests: boolean;
    sync: boolean;
    administrator: string;
    full_users: Named[];
    reading_users: Named[];
    blocked_users: Named[];
    hidden_users: Named[];
}

interface Device {
    vendor: string | null;
    product: string | null;
    serial: string | null;
    speed_mbit_per_s: number | null;
    kernel_name: string | null;
    node: string | null;
    mounted_as: string | null;
}

interface Item {
    name: string | null;
    identity: string | null;
    state: string;
    reason: string | null;
    share: string | null;
    label: string | null;
    directory: string | null;
    filesystem: string | null;
    size_bytes: number | null;
    used_bytes: number | null;
    free_bytes: number | null;
    read_only: boolean;
    settings: Settings | null;
    device?: Device;
}

interface Holder {
    pid: number;
    user: string;
    command: string;
    use: string;
    file: string | null;
    client: { user: string, machine: string } | null; // whom a process of Samba serves
}

interface Problem {
    id: string;
    severity: string;
    text: string;
    form: string; // the text with $0, $1 ... in the place of the arguments
    arguments: string[];
    remedy: string;
    remedy_kind?: "command" | "prose"; // an older vyhotplugctl does not tell
}

interface User {
    uid: number;
    name: string;
    full_name: string | null;
    samba_password: boolean | null;
    ksmbd_password?: boolean | null;
}

/** Something that was asked for, and how far it is. */
interface Task {
    verb: string;
    phase: "running" | "waiting" | "busy" | "failed" | "asked";
    message: string; // what vyhotplugctl said; "" if nothing
    status: number | null; // its exit status
    holders: Holder[];
}

interface Happening {
    time_s: number;
    event: string;
    name: string;
    share: string | null;
}

/** What is being typed, and what was held when that began: only what differs is set, for others may change the rest. */
interface Draft {
    share?: string;
    comment?: string;
    users?: Record<string, string>; // roles by number
    was?: string[]; // as `set` would be given it
}

interface Model {
    loaded: boolean; // the first answer is there
    lost: string | null; // why nothing can be told; null when all is well
    runs: boolean; // the service does
    access: boolean | null; // whether changes are allowed; null while it is not known
    items: Item[]; // what is plugged, and directories
    known: Item[]; // what has settings and is not plugged
    seen: Problem[]; // problems that can be seen at once
    found: Problem[]; // what a thorough look has found
    checking: boolean;
    users: User[] | null;
    happenings: Happening[]; // the latest first
    tasks: Record<string, Task>; // by key
    drafts: Record<string, Draft>; // by identity
    open: Record<string, string>; // which form, by identity
    notices: { id: number, text: string }[];
}

/** What happened, for the model. */
type Send = (event: { type: string, [detail: string]: any }) => void;

/** What a call of vyhotplugctl came to. */
interface Answer {
    status: number | null;
    out: string;
    message: string;
    problem: string | null; // Cockpit's word for why it could not even be called
}

interface Disk {
    name: string;
    parts: Item[];
}

/** A text in pieces; lang: the language of one that is not in that of the page. */
type Told = { text: string, lang: string | null }[];

/** An element that is to be there, or a text. */
type Wanted = WantedElement | string;

interface WantedElement {
    tag: string;
    key: string | undefined;
    attributes: Record<string, any>;
    children: Wanted[];
}
