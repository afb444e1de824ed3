/**
 * Reads JSON that comes in pieces, an object a line. A line that is none is passed over.
 *
 * @param {(value: any) => void} take - called for each line
 * @returns {(piece: string) => void} to be called with what comes
 */
export function jsonLines(take) {
    let rest = "";
    return piece => {
        const lines = (rest + piece).split("\n");
        rest = lines.pop() ?? "";
        for (const line of lines.filter(one => one !== "")) {
            const value = parse(line);
            if (value !== undefined)
                take(value);
        }
    };
}

/** @param {string} text @returns {any} what it says; undefined where it is no JSON */
export function parse(text) {
    try {
        return JSON.parse(text);
    } catch (_error) {
        return undefined;
    }
}
