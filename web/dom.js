// The page as it is to be, and the few changes that make it so: what has the focus keeps it. Texts become text nodes
// and attributes, never markup.

/**
 * @param {string} tag
 * @param {Record<string, any>} attributes - "on..." are handlers; true and false for those without a value; "key"
 *     tells siblings apart; "focus" takes the focus when the element comes
 * @param {...(Wanted | null | false | undefined | (Wanted | null | false | undefined)[])} children
 * @returns {WantedElement}
 */
export function h(tag, attributes, ...children) {
    const { key, ...rest } = attributes;
    const wanted = /** @type {Wanted[]} */ (children.flat().filter(child => child || child === ""));
    return { tag, key, attributes: rest, children: wanted };
}

/** @type {WeakMap<Node, WantedElement>} */
const before = new WeakMap();

const PROPERTIES = ["checked", "value", "disabled", "open", "selected", "hidden"];

/** @param {any} node @param {Record<string, any>} old @param {Record<string, any>} next */
function setAttributes(node, old, next) {
    for (const name of Object.keys(old).filter(one => !(one in next))) {
        if (name.startsWith("on"))
            node[name] = null;
        else if (PROPERTIES.includes(name))
            node[name] = false;
        else
            node.removeAttribute(name);
    }
    for (const [name, value] of Object.entries(next)) {
        if (name === "focus")
            continue;
        if (name.startsWith("on") || (PROPERTIES.includes(name) && node.localName !== "meter" && node.localName !== "progress")) {
            if (node[name] !== value)
                node[name] = value;
        } else if (value === false || value === null || value === undefined) {
            node.removeAttribute(name);
        } else if (node.getAttribute(name) !== String(value)) {
            node.setAttribute(name, value === true ? "" : String(value));
        }
    }
}

/**
 * @param {Wanted} want
 * @param {Node | null} at - the node that stands there
 * @param {Map<string, Node>} keyed
 * @returns {Node | null} the one that is to be changed
 */
function find(want, at, keyed) {
    if (typeof want === "string")
        return at?.nodeType === Node.TEXT_NODE ? at : null;
    if (want.key !== undefined) {
        const node = keyed.get(want.key);
        return node && before.get(node)?.tag === want.tag ? node : null;
    }
    const old = at && before.get(at);
    return at && old && old.tag === want.tag && old.key === undefined ? at : null;
}

/** Makes the children of a node what they are to be. @param {Node} parent @param {Wanted[]} wanted */
export function patch(parent, wanted) {
    /** @type {Map<string, Node>} */
    const keyed = new Map();
    for (const node of parent.childNodes) {
        const key = before.get(node)?.key;
        if (key !== undefined)
            keyed.set(key, node);
    }
    const kept = new Set(wanted.map(want => typeof want === "string" ? undefined : want.key));
    let at = parent.firstChild;
    for (const want of wanted) {
        while (at && before.get(at)?.key !== undefined && !kept.has(before.get(at)?.key))
            at = remove(parent, at);
        const node = find(want, at, keyed) ?? create(want);
        if (node === at)
            at = at.nextSibling;
        else
            parent.insertBefore(node, at);
        change(node, want);
    }
    while (at)
        at = remove(parent, at);
}

/** @param {Node} parent @param {ChildNode} node @returns {ChildNode | null} the next one */
function remove(parent, node) {
    const next = node.nextSibling;
    parent.removeChild(node);
    return next;
}

/** @param {Wanted} want */
function create(want) {
    return typeof want === "string" ? document.createTextNode(want) : document.createElement(want.tag);
}

/** @param {Node} node @param {Wanted} want */
function change(node, want) {
    if (typeof want === "string") {
        if (node.nodeValue !== want)
            node.nodeValue = want;
        return;
    }
    const old = before.get(node);
    before.set(node, want);
    patch(node, want.children); // first: a select takes its value when its options are there
    setAttributes(node, old?.attributes ?? {}, want.attributes);
    if (!old && want.attributes.focus)
        setTimeout(() => /** @type {HTMLElement} */ (node).focus());
}
