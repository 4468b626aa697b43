// --log-format json: standard error carries nothing but records, one JSON object a
// line with exactly time (UTC, milliseconds), level, channel and message, the error
// the server exits on among them.

import { test } from "node:test";
import assert from "node:assert/strict";
import { spawnSync } from "node:child_process";

import { serverBinary, startServer } from "../support/launch.mjs";

function assertJsonRecords(stderr) {
    const lines = stderr.split("\n").filter((line) => line !== "");
    assert.ok(lines.length > 0, "no record");
    for (const line of lines) {
        const record = JSON.parse(line);
        assert.deepEqual(Object.keys(record), ["time", "level", "channel", "message"], line);
        assert.match(record.time, /^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$/, line);
    }
    return lines.map((line) => JSON.parse(line));
}

test("a serving server and one that cannot listen write JSON records only", async () => {
    const server = await startServer({ args: ["--log-format", "json", "--log-levels", "16"] });
    const handshake = [{ channel: "/meta/handshake", version: "1.0", supportedConnectionTypes: ["long-polling"] }];
    const reply = await fetch(server.bayeux, { method: "POST", body: JSON.stringify(handshake) });
    const { clientId } = (await reply.json())[0];
    const busy = spawnSync(serverBinary, ["--listen", `127.0.0.1:${server.port}`, "--log-format", "json"], { encoding: "utf8" });
    await server.stop();

    const records = assertJsonRecords(server.errors());
    assert.ok(records.some((r) => r.level === "lifecycle" && r.message.includes(clientId)), server.errors());
    assert.equal(busy.status, 1);
    const [failure] = assertJsonRecords(busy.stderr);
    assert.deepEqual([failure.level, failure.channel], ["failure", "korvane-bayeux"]);
    assert.ok(failure.message.startsWith(`Cannot listen on 127.0.0.1:${server.port}: `), failure.message);
});
