// The server's command line: every bad invocation exits with status 2 before serving,
// with one line on standard error that names the flag at fault.

import { test } from "node:test";
import assert from "node:assert/strict";
import { spawnSync } from "node:child_process";

import { serverBinary } from "../support/launch.mjs";

const badInvocations = [  // the arguments, the flag the line names
    [["--listen", "127.0.0.1:notaport"], "--listen"], [["--listen", "[::1]80"], "--listen"], [["--threads", "many"], "--threads"],
    [["--max-body"], "--max-body"], [["--no-such-flag"], "--no-such-flag"], [["--path", "nope"], "--path"],
    [["--redis", "http://:secret@localhost:1"], "--redis"], [["--tls-cert", "cert.pem"], "--tls-key"], [["--log-format", "xml"], "--log-format"],
];

test("a bad flag or value exits with 2 and one line naming the flag", () => {
    for (const [args, flag] of badInvocations) {
        const run = spawnSync(serverBinary, args, { encoding: "utf8", timeout: 10000 });
        const lines = run.stderr.split("\n").filter((line) => line !== "");
        assert.deepEqual([run.status, lines.length, run.stdout], [2, 1, ""], `${args.join(" ")}: ${run.stderr}`);
        assert.ok(lines[0].includes(flag) && !lines[0].includes("secret"), `${args.join(" ")}: ${lines[0]}`);
    }
});
