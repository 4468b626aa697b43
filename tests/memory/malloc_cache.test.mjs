// glibc's per-thread cache of freed blocks keeps pages of a swept burst resident, so the
// server runs with three cached blocks per size: it starts itself again (same pid) with the
// setting added to GLIBC_TUNABLES, and leaves alone an environment that chooses its own.

import { test } from "node:test";
import assert from "node:assert/strict";
import { readFileSync } from "node:fs";
import { withServer } from "../support/launch.mjs";

// The GLIBC_TUNABLES the server was started with. glibc cuts the variable apart in place
// as it parses it, so /proc shows each further tunable as an entry of its own.
function tunablesOf(pid) {
    const entries = readFileSync(`/proc/${pid}/environ`, "utf8").split("\0");
    const first = entries.findIndex((entry) => entry.startsWith("GLIBC_TUNABLES="));
    if (first < 0) return undefined;
    const tunables = [entries[first].slice("GLIBC_TUNABLES=".length)];
    for (let i = first + 1; i < entries.length && entries[i].startsWith("glibc."); i++) tunables.push(entries[i]);
    return tunables.join(":");
}

test("the server limits glibc's per-thread cache unless told otherwise", async () => {
    const cases = [
        { given: undefined, running: "glibc.malloc.tcache_count=3" },
        { given: "", running: "glibc.malloc.tcache_count=3" },
        { given: "glibc.malloc.arena_max=2", running: "glibc.malloc.arena_max=2:glibc.malloc.tcache_count=3" },
        { given: "glibc.malloc.tcache_count=7", running: "glibc.malloc.tcache_count=7" },
    ];
    for (const { given, running } of cases) {
        // Started again under the same pid, it serves: withServer waited for its address.
        await withServer({ env: { GLIBC_TUNABLES: given } }, async (server) =>
            assert.equal(tunablesOf(server.pid), running, `GLIBC_TUNABLES=${given}`));
    }
});
