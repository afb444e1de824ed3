// Where the focus goes when what had it goes: who cannot see the page would be at its top, and not told so.

/** @type {HTMLElement | null} what had the focus when it was disabled */
let resting = null;

/** @param {Element | null} element @returns {Element[]} it and all that it is in, from within */
function lineOf(element) {
    return element === null || element === document.body ? [] : [element, ...lineOf(element.parentElement)];
}

/**
 * Lets something change the page. The focus comes back to what was disabled meanwhile, and goes to the heading of the
 * place when what had it is gone.
 *
 * @param {() => void} change
 */
export function keepingFocus(change) {
    const before = lineOf(document.activeElement);
    change();
    const now = /** @type {HTMLButtonElement | null} */ (document.activeElement);
    if (now?.disabled)
        resting = now; // the browser takes the focus off it with the next picture
    else if (before.length > 0 && !before[0].isConnected)
        focusHeading(before.find(element => element.isConnected));
    else if (before.length === 0 && resting?.isConnected && !resting.matches(":disabled"))
        resting.focus({ preventScroll: true });
    if (document.activeElement !== document.body && !document.activeElement?.matches(":disabled"))
        resting = null;
}

/** @param {Element | undefined} place */
function focusHeading(place) {
    const heading = /** @type {HTMLElement | null | undefined} */ (place?.closest(".part, .card, .list, main")?.querySelector("h1, h2, h3"));
    heading?.setAttribute("tabindex", "-1");
    heading?.focus({ preventScroll: true });
}

export function followFocus() {
    document.addEventListener("pointerdown", () => { resting = null; });
}
