// The server's memory while peers that read nothing are fed, measured from its RSS: a
// WebSocket subscriber that keeps connecting but never reads is cut past the backlog, a
// long-polling subscriber that stops connecting is dropped past the pending limit, a
// subscriber that reads gets everything; meanwhile RSS stays bounded, and afterwards it
// falls back (the server hands freed pages back every 10 s).

import { test } from "node:test";
import assert from "node:assert/strict";
import { readFileSync } from "node:fs";
import WebSocket from "ws";
import { startServer } from "../support/launch.mjs";
import { until } from "../support/cometd.mjs";

const MiB = 1024;  // in kB
const backlogBytes = 4 * 1024 * 1024;
// The quiet client is dropped past either pending limit: by count with small messages, by
// bytes with large ones (600 of them would pin 38 MiB under the count alone). Both limits lie
// above the backlog: the stalled WebSocket's messages wait in its session between its connects,
// and must not reach the limit there before its backlog is cut. A POST body holds at most
// 1 MiB, hence the batches.
const limits = [
    { name: "messages", args: ["--max-pending", "500"], messages: 1500, bytes: 10000, batch: 20, pendingKb: 500 * 10000 / 1024 },
    { name: "bytes", args: ["--max-pending-bytes", String(8 << 20)], messages: 600, bytes: 65536, batch: 10, pendingKb: 8 * MiB },
];

async function post(bayeux, body, cookie = "") {
    const headers = { "Content-Type": "application/json", Cookie: cookie };
    const response = await fetch(bayeux, { method: "POST", headers, body: JSON.stringify(body) });
    return { replies: await response.json(), cookie: response.headers.get("set-cookie")?.split(";")[0] ?? cookie };
}

// A WebSocket subscriber of /room speaking Bayeux by hand; a reader sends its next
// connect on each connect reply.
async function webSocketSubscriber(bayeux, onMessage) {
    const socket = new WebSocket(bayeux.replace("http", "ws"));
    await new Promise((resolve, reject) => socket.once("open", resolve).once("error", reject));
    socket.on("error", () => {});
    const send = (message) => socket.send(JSON.stringify([message]));
    const connect = () => send({ channel: "/meta/connect", connectionType: "websocket" });
    const subscribed = new Promise((resolve) => {
        socket.on("message", (data) => {
            for (const message of JSON.parse(data)) {
                if (message.channel === "/meta/handshake") {
                    send({ channel: "/meta/subscribe", clientId: message.clientId, subscription: "/room" });
                } else if (message.channel === "/meta/subscribe") {
                    resolve(message.clientId);
                } else if (message.channel === "/meta/connect" && onMessage) {
                    connect();
                } else if (message.channel === "/room") {
                    onMessage?.(message);
                }
            }
        });
    });
    send({ channel: "/meta/handshake", version: "1.0", supportedConnectionTypes: ["websocket"] });
    return { socket, connect, clientId: await subscribed };
}

for (const { name, args, messages, bytes, batch, pendingKb } of limits) test(`peers that read nothing cost a bounded amount of memory, given back once they are cut (pending limit on ${name})`, async () => {
    const server = await startServer({ args: ["--ws-backlog", String(backlogBytes), ...args] });
    const rssKb = () => Number(/VmRSS:\s+(\d+)/.exec(readFileSync(`/proc/${server.pid}/status`, "utf8"))[1]);
    let stalledConnects;
    try {
        const before = rssKb();
        let received = 0;
        const reader = await webSocketSubscriber(server.bayeux, (message) => assert.equal(message.data.n, received++, "in order"));
        reader.connect();

        const stalled = await webSocketSubscriber(server.bayeux);
        stalled.socket._socket.pause();
        stalledConnects = setInterval(() => stalled.socket.readyState === WebSocket.OPEN && stalled.connect(), 20);

        const quiet = await post(server.bayeux, [{ channel: "/meta/handshake", version: "1.0", supportedConnectionTypes: ["long-polling"] }]);
        const quietId = quiet.replies[0].clientId;
        await post(server.bayeux, [{ channel: "/meta/subscribe", clientId: quietId, subscription: "/room" }], quiet.cookie);

        const publisher = await post(server.bayeux, [{ channel: "/meta/handshake", version: "1.0" }]);
        const publisherId = publisher.replies[0].clientId;
        const text = "x".repeat(bytes);
        let highest = before;
        const sampler = setInterval(() => (highest = Math.max(highest, rssKb())), 50);
        for (let n = 0; n < messages; n += batch) {
            const body = Array.from({ length: batch }, (_, k) => ({ channel: "/room", clientId: publisherId, data: { n: n + k, text } }));
            await post(server.bayeux, body, publisher.cookie);
        }
        await until(() => received === messages, 30000, `all ${messages} messages at the reader`);
        clearInterval(sampler);

        assert.match(server.output(), /WebSocket cut: \d+ bytes waiting for a peer that does not read/);
        const after = await post(server.bayeux, [{ channel: "/meta/connect", clientId: quietId, connectionType: "long-polling" }], quiet.cookie);
        assert.equal(after.replies[0].error, "No such clientId.", "the quiet long-polling client was dropped");

        // What the server held for the two: the backlog, the pending messages, and room
        // for the reader's frames and the allocator's own keeping.
        const bound = backlogBytes / 1024 + pendingKb + 24 * MiB;
        assert.ok(highest - before <= bound, `RSS grew by ${highest - before} kB, bound ${bound} kB`);
        // A WebSocket cut late keeps what came after the cut, short of the pending limit, until its client goes.
        const [gone] = (await post(server.bayeux, [{ channel: "/meta/disconnect", clientId: stalled.clientId }])).replies;
        assert.ok(gone.successful || gone.error === "No such clientId.", JSON.stringify(gone));
        await until(() => rssKb() - before <= 8 * MiB, 15000, () => `RSS back within 8 MiB of ${before} kB (${rssKb()} kB)`);
        console.log(`RSS: ${before} kB before, ${highest} kB at most, ${rssKb()} kB after`);
        reader.socket.terminate();
        stalled.socket.terminate();
    } finally {
        clearInterval(stalledConnects);
        await server.stop();
    }
});
