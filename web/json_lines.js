// @ts-check

/**
 * Reads JSON that comes in pieces, an object a line.
 *
 * @param {(value: any) => void} take - called for each line
 * @param {(line: string) => void} [refuse] - called for a line that is no JSON
 * @returns {(piece: string) => void} to be called with what comes
 */
export function jsonLines(take, refuse = () => undefined) {
    let rest = "";
    return piece => {
        const lines = (rest + piece).split("\n");
        rest = lines.pop() ?? "";
        for (const line of lines.filter(one => one !== "")) {
            const value = parse(line);
            if (value === undefined)
                refuse(line);
            else
                take(value);
        }
    };
}

/**
 * @param {string} text
 * @returns {any} what it says; undefined where it is no JSON
 */
export function parse(text) {
    try {
        return JSON.parse(text);
    } catch (_error) {
        return undefined;
    }
}
