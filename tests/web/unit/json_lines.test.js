import assert from "node:assert/strict";
import { test } from "node:test";
import { jsonLines, parse } from "../../../web/json_lines.js";

function read(...pieces) {
    const taken = [];
    pieces.forEach(jsonLines(value => taken.push(value)));
    return taken;
}

test("lines that come whole, in pieces and together", () => {
    assert.deepEqual(read("{\"a\":1}\n"), [{ a: 1 }]);
    assert.deepEqual(read("{\"a\"", ":1", "}", "\n"), [{ a: 1 }]);
    assert.deepEqual(read("1\n2\n\n3"), [1, 2]);
    assert.deepEqual(read("1\n2\n\n3", "4\n"), [1, 2, 34]);
});

test("every place where a line can be cut", () => {
    const text = "{\"a\":\"ä\\n\\u001b<b>\"}\n[]\n";
    for (let at = 0; at <= text.length; at++)
        assert.deepEqual(read(text.slice(0, at), text.slice(at)), [{ a: "ä\n\u001b<b>" }, []]);
});

test("a line that is no JSON is passed over, and the next ones count", () => {
    assert.deepEqual(read("oh\n{}\n"), [{}]);
    assert.equal(parse("{"), undefined);
});
