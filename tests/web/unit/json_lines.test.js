import assert from "node:assert/strict";
import { test } from "node:test";
import { jsonLines, parse } from "../../../web/json_lines.js";

function read(...pieces) {
    const taken = [];
    const refused = [];
    const reader = jsonLines(value => taken.push(value), line => refused.push(line));
    pieces.forEach(reader);
    return { taken, refused };
}

test("lines that come whole, in pieces and together", () => {
    assert.deepEqual(read("{\"a\":1}\n").taken, [{ a: 1 }]);
    assert.deepEqual(read("{\"a\"", ":1", "}", "\n").taken, [{ a: 1 }]);
    assert.deepEqual(read("1\n2\n\n3").taken, [1, 2]);
    assert.deepEqual(read("1\n2\n\n3", "4\n").taken, [1, 2, 34]);
});

test("every place where a line can be cut", () => {
    const text = "{\"a\":\"ä\\n\\u001b<b>\"}\n[]\n";
    for (let at = 0; at <= text.length; at++)
        assert.deepEqual(read(text.slice(0, at), text.slice(at)).taken, [{ a: "ä\n\u001b<b>" }, []]);
});

test("a line that is no JSON is told of, and the next ones count", () => {
    assert.deepEqual(read("oh\n{}\n"), { taken: [{}], refused: ["oh"] });
    assert.equal(parse("{"), undefined);
});
