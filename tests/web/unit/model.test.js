import assert from "node:assert/strict";
import { test } from "node:test";
import * as model from "../../../web/model.js";

const SETTINGS = {
    share_name: null, comment: null, path: null, read_only: false, guest: false, hide_from_guests: false, sync: false,
    administrator: "full", full_users: [], reading_users: [], blocked_users: [], hidden_users: [],
};

function item(name, more = {}) {
    return {
        name, identity: `1:2:S:${name}`, state: "shared", reason: null, share: `Drive(${name})`, label: null, directory: null,
        filesystem: "ext4", size_bytes: 1, used_bytes: 1, free_bytes: 0, read_only: false, settings: null, ...more,
    };
}

function status(items, more = {}) {
    return { type: "status", status: { service_runs: true, items, problems: [], ...more } };
}

function line(event, of) {
    return { type: "watch", line: { call: "watch", version: 1, time_s: 1, event, item: of } };
}

function after(...events) {
    return events.reduce(model.update, model.nothing);
}

const names = known => known.items.map(one => one.name);

test("what is plugged comes, changes and goes", () => {
    const plugged = after(status([]), line("plugged", item("sda1", { identity: null, state: "mounted" })), line("shared", item("sda1")));
    assert.deepEqual(names(plugged), ["sda1"]);
    assert.equal(plugged.items[0].state, "shared");
    assert.deepEqual(names(model.update(plugged, line("pulled", item("sda1")))), []);
    assert.deepEqual(plugged.happenings.map(one => one.event), ["shared", "plugged"]);
});

test("what was there before is no event", () => {
    assert.deepEqual(after(line("present", item("sda1"))).happenings, []);
    assert.deepEqual(names(after(line("present", item("sda1")))), ["sda1"]);
});

test("another disk of the same name is another one", () => {
    const second = item("sda1", { identity: "1:2:T:1" });
    const both = after(status([item("sda1")]), line("shared", second));
    assert.equal(both.items.length, 2);
    assert.deepEqual(model.update(both, line("pulled", item("sda1"))).items, [second]);
});

test("the events that are kept have an end", () => {
    let many = model.nothing;
    for (let count = 0; count < 1000; count++)
        many = model.update(many, line("changed", item("sda1")));
    assert.equal(many.happenings.length, 200);
});

test("an event that nobody knows changes nothing", () => {
    assert.equal(model.update(model.nothing, { type: "new" }), model.nothing);
});

test("the model that was is left as it was", () => {
    const before = after(status([item("sda1")]));
    const copy = structuredClone(before);
    for (const event of [line("pulled", item("sda1")), status([]), { type: "open", key: "a", form: "names", draft: {} },
        { type: "task", key: "disk sda", task: { phase: "running" } }, { type: "notice", text: "x" }])
        model.update(before, event);
    assert.deepEqual(before, copy);
});

test("the service ends and starts", () => {
    const ended = after(status([]), line("service_ended", null));
    assert.equal(ended.runs, false);
    assert.equal(model.update(ended, line("service_started", null)).runs, true);
    assert.equal(ended.happenings[0].event, "service_ended");
});

test("known disks are those that are not plugged", () => {
    const away = item(null, { identity: "1:2:S:sda1", state: "absent" });
    const known = after(status([away]));
    assert.deepEqual([known.items, known.known], [[], [away]]);
    assert.deepEqual(model.update(known, line("shared", item("sda1"))).known, []);
});

test("what is not plugged is changed and forgotten", () => {
    const away = item(null, { identity: "1:2:S:1", state: "absent" });
    const other = { ...away, settings: { ...SETTINGS, comment: "c" } };
    const changed = after(status([away]), line("changed", other));
    assert.deepEqual([changed.items, changed.known], [[], [other]]);
    assert.deepEqual(model.update(changed, line("forgotten", other)).known, []);
});

test("disks have their partitions by number", () => {
    const plugged = after(status(["sdb1", "sda10", "sda2", "mmcblka1"].map(name => item(name))));
    assert.deepEqual(model.disks(plugged).map(disk => [disk.name, disk.parts.map(part => part.name)]),
        [["sdb", ["sdb1"]], ["sda", ["sda2", "sda10"]], ["mmcblka", ["mmcblka1"]]]);
});

test("forms, drafts and failures of what is pulled go, and what runs stays", () => {
    const key = item("sda1").identity;
    const open = after(status([item("sda1")]), { type: "open", key, form: "names", draft: { share: "x" } },
        { type: "task", key: "part sda1", task: { phase: "failed" } }, { type: "task", key: "disk sda", task: { phase: "running" } });
    assert.deepEqual(open.open, { [key]: "names" });
    const gone = model.update(open, line("pulled", item("sda1")));
    assert.deepEqual([gone.open, gone.drafts, Object.keys(gone.tasks)], [{}, {}, ["disk sda"]]);
});

test("a form that is open outlives a look", () => {
    const key = item("sda1").identity;
    const open = after(status([item("sda1")]), { type: "open", key, form: "names", draft: { share: "x", comment: "" } },
        { type: "draft", key, change: { share: "xy" } }, status([item("sda1")]));
    assert.deepEqual(open.drafts[key], { share: "xy", comment: "" });
});

test("what can be seen at once is told as it is now", () => {
    const problem = (id, severity = "problem") => ({ id, severity, text: "", remedy: "" });
    const found = { type: "check", found: [problem("tmp_full"), problem("name_twice"), problem("samba_no_users")] };
    const told = (/** @type {any[]} */ ...seen) => model.problems(after(status([], { problems: seen }), found)).map(one => one.id);
    assert.deepEqual(told(problem("deep", "note"), problem("tmp_full")), ["tmp_full", "samba_no_users", "deep"]);
    assert.deepEqual(told(problem("samba_no_users")), ["samba_no_users"]);
});

test("roles of users and back", () => {
    const of = item("sda1", { settings: { ...SETTINGS, full_users: [{ uid: 7, name: "a" }], hidden_users: [{ uid: 8, name: "b" }] } });
    assert.deepEqual(model.roles(of), { 7: "full", 8: "hidden" });
    assert.deepEqual(model.roleWords({ 7: "full", 8: "hidden", 9: "", 10: "full" }), ["full=7,10", "readers=", "blocked=", "hidden=8"]);
    const known = after({ type: "users", users: [{ uid: 7, name: "a", full_name: "A", samba_password: true }] });
    assert.deepEqual(model.choices(known, of).map(one => one.name), ["a", "b"]);
    const twice = item("sda1", { settings: { ...SETTINGS, full_users: [{ uid: 8, name: "b" }], hidden_users: [{ uid: 8, name: "b" }] } });
    assert.deepEqual(model.choices(known, twice).map(one => one.name), ["a", "b"]);
});

test("what a share cannot be called", () => {
    const other = item("sdb1", { share: "Music" });
    const known = after(status([item("sda1"), other]));
    const fault = (share, comment = "") => model.faultOf(known, item("sda1"), { share, comment });
    assert.equal(fault("Photos", "Living room"), null);
    assert.equal(fault(""), null);
    assert.equal(fault("ä".repeat(17)), null);
    assert.equal(fault(`${"ä".repeat(17)}a`), "name_long");
    assert.equal(fault(" a"), "name_blank");
    assert.equal(fault("a]"), "name_sign");
    assert.equal(fault("a\u0007"), "name_sign");
    assert.equal(fault("MUSIC"), "name_used");
    assert.equal(fault("a", "c".repeat(64)), "comment_long");
    assert.equal(fault("a", "\n"), "comment_sign");
    assert.equal(model.faultOf(known, other, { share: "music", comment: "" }), null);
});
