// A flood of handshakes that never connect, against a fresh server: its RSS before, right
// after the flood, and once the sweep has dropped the silent clients (120 s after their
// last request; sweeps run every 10 s, and freed pages go back every 10 s).
//
//   node scripts/handshake-flood.mjs [HANDSHAKES]      (KORVANE_SERVER names the binary)

import { readFileSync } from "node:fs";
import { startServer } from "../tests/support/launch.mjs";

const handshakes = Number(process.argv[2] ?? 100000);
const concurrency = 32;
const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

const server = await startServer();
const rssKb = () => Number(/VmRSS:\s+(\d+)/.exec(readFileSync(`/proc/${server.pid}/status`, "utf8"))[1]);
// Requests from `concurrency` connections at once until `total` are made.
async function flood(total, request) {
    let started = 0;
    await Promise.all(Array.from({ length: concurrency }, async () => {
        while (started < total) {
            started++;
            await request();
        }
    }));
}

const post = async (message) =>
    (await fetch(server.bayeux, { method: "POST", headers: { "Content-Type": "application/json" }, body: JSON.stringify([message]) })).json();

try {
    // The start is taken once the request paths have run and every I/O thread has
    // allocated: a thousand clients that handshake and disconnect leave nothing behind.
    await flood(1000, async () => {
        const [reply] = await post({ channel: "/meta/handshake", version: "1.0", supportedConnectionTypes: ["long-polling"] });
        await post({ channel: "/meta/disconnect", clientId: reply.clientId });
    });
    await sleep(11000);
    const before = rssKb();
    let refused = 0;
    const began = Date.now();
    await flood(handshakes, async () => {
        const [reply] = await post({ channel: "/meta/handshake", version: "1.0", supportedConnectionTypes: ["long-polling"] });
        if (!reply?.successful) refused++;
    });
    const seconds = (Date.now() - began) / 1000;
    const flooded = rssKb();
    // The last clients expire 120 s after the flood, the next sweep drops them and the
    // next trim hands their pages back: 150 s covers all three.
    await sleep(150000);
    const swept = rssKb();
    console.log(JSON.stringify({
        handshakes, refused, handshakes_per_s: Math.round(handshakes / seconds),
        rss_before_kb: before, rss_flooded_kb: flooded, rss_swept_kb: swept,
        flooded_bytes_per_client: Math.round(((flooded - before) * 1024) / handshakes),
        swept_vs_before_pct: Number(((100 * (swept - before)) / before).toFixed(1)),
    }));
} finally {
    await server.stop();
}
