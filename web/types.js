// @ts-check
// What docs/json.md tells of, and what the page keeps. Only types.

/** @typedef {{uid: number, name: string}} Named */

/**
 * @typedef {object} Settings
 * @property {string | null} share_name
 * @property {string | null} comment
 * @property {string | null} path
 * @property {boolean} read_only
 * @property {boolean} guest
 * @property {boolean} hide_from_guests
 * @property {boolean} sync
 * @property {string} administrator
 * @property {Named[]} full_users
 * @property {Named[]} reading_users
 * @property {Named[]} blocked_users
 * @property {Named[]} hidden_users
 */

/**
 * @typedef {object} Device
 * @property {string | null} vendor
 * @property {string | null} product
 * @property {string | null} serial
 * @property {number | null} speed_mbit_per_s
 * @property {string | null} kernel_name
 * @property {string | null} node
 * @property {string | null} mounted_as
 */

/**
 * @typedef {object} Item
 * @property {string | null} name
 * @property {string | null} identity
 * @property {string} state
 * @property {string | null} reason
 * @property {string | null} share
 * @property {string | null} label
 * @property {string | null} directory
 * @property {string | null} filesystem
 * @property {number | null} size_bytes
 * @property {number | null} used_bytes
 * @property {number | null} free_bytes
 * @property {boolean} read_only
 * @property {Settings | null} settings
 * @property {Device} [device]
 */

/**
 * @typedef {object} Holder
 * @property {number} pid
 * @property {string} user
 * @property {string} command
 * @property {string} use
 * @property {string | null} file
 * @property {{user: string, machine: string} | null} client - whom a process of Samba serves
 */

/** @typedef {{id: string, severity: string, text: string, remedy: string}} Problem */
/** @typedef {{uid: number, name: string, full_name: string | null, samba_password: boolean | null}} User */

/**
 * Something that was asked for, and how far it is.
 *
 * @typedef {object} Task
 * @property {string} verb
 * @property {"running" | "waiting" | "busy" | "failed" | "asked"} phase
 * @property {string} message - what vyhotplugctl said; "" if nothing
 * @property {number | null} status - its exit status
 * @property {Holder[]} holders
 */

/** @typedef {{time_s: number, event: string, name: string, share: string | null}} Happening */

/**
 * What is being typed, and what was held when that began: only what differs is set, for others may change the rest.
 *
 * @typedef {object} Draft
 * @property {string} [share]
 * @property {string} [comment]
 * @property {Record<string, string>} [users] - roles by number
 * @property {string[]} [was] - as `set` would be given it
 */

/**
 * @typedef {object} Model
 * @property {boolean} loaded - the first answer is there
 * @property {string | null} lost - why nothing can be told; null when all is well
 * @property {boolean} runs - the service does
 * @property {boolean | null} access - whether changes are allowed; null while it is not known
 * @property {Item[]} items - what is plugged, and directories
 * @property {Item[]} known - what has settings and is not plugged
 * @property {Problem[]} seen - problems that can be seen at once
 * @property {Problem[]} found - what a thorough look has found
 * @property {boolean} checking
 * @property {User[] | null} users
 * @property {Happening[]} happenings - the latest first
 * @property {Record<string, Task>} tasks - by key
 * @property {Record<string, Draft>} drafts - by identity
 * @property {Record<string, string>} open - which form, by identity
 * @property {{id: number, text: string}[]} notices
 */

export {};
