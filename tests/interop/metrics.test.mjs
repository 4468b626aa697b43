// GET /metrics: a scripted client's steps move the counters by exactly what it did, and
// a public listener shows no metrics but on the --metrics-listen address.

import { test } from "node:test";
import assert from "node:assert/strict";
import { once } from "node:events";
import http from "node:http";
import WebSocket from "ws";

import { withServer } from "../support/launch.mjs";
import { sleep, until } from "../support/cometd.mjs";

// What the scripted client sent and received, as the server counts it.
const sent = { poll: 0, socket: 0, frames: 0, posts: 0, scrapes: 0 };
const received = { poll: 0, socket: 0, frames: 0 };

// The samples of one scrape by name and labels as written, e.g. `korvane_clients{connection_type="none"}`.
async function scrape(url) {
    const response = await fetch(new URL("/metrics", url));
    sent.scrapes += 1;
    assert.equal(response.headers.get("content-type"), "text/plain; version=0.0.4; charset=utf-8");
    const lines = (await response.text()).split("\n").filter((line) => line && !line.startsWith("#"));
    return new Map(lines.map((line) => [line.slice(0, line.lastIndexOf(" ")), Number(line.slice(line.lastIndexOf(" ") + 1))]));
}

async function post(bayeux, messages) {
    const body = JSON.stringify(messages);
    const response = await fetch(bayeux, { method: "POST", headers: { "content-type": "application/json" }, body });
    const text = await response.text();
    sent.poll += Buffer.byteLength(body);
    received.poll += Buffer.byteLength(text);
    sent.posts += 1;
    return JSON.parse(text);
}

async function openSocket(bayeux) {
    const socket = new WebSocket(bayeux.replace(/^http/, "ws"));
    const messages = [];
    socket.on("message", (data) => {
        received.frames += 1;
        received.socket += data.length;
        messages.push(...JSON.parse(data));
    });
    await once(socket, "open");
    const send = (message) => {
        const text = JSON.stringify([message]);
        sent.frames += 1;
        sent.socket += Buffer.byteLength(text);
        socket.send(text);
    };
    // Sends and resolves with the reply on the message's channel.
    const call = async (message, seen = messages.length, reply = undefined) => {
        send(message);
        await until(() => (reply = messages.slice(seen).find((each) => each.channel === message.channel)), 5000, message.channel);
        return reply;
    };
    return { socket, messages, send, call };
}

const handshake = (type) => ({ channel: "/meta/handshake", version: "1.0", supportedConnectionTypes: [type] });
const subscribe = (clientId) => ({ channel: "/meta/subscribe", clientId, subscription: "/room" });
const connect = (clientId, connectionType, timeout) => ({ channel: "/meta/connect", clientId, connectionType, advice: { timeout } });

// An upgrade with a foreign Origin, answered by a plain HTTP response.
function upgradeFrom(origin, url) {
    const headers = { connection: "Upgrade", upgrade: "websocket", origin, "sec-websocket-version": "13", "sec-websocket-key": "dGhlIHNhbXBsZSBub25jZQ==" };
    return new Promise((resolve, reject) => http.get(new URL("/bayeux", url), { headers }, (response) => resolve(response.resume())).on("error", reject));
}

test("the counters move by exactly what a scripted client did", () =>
    withServer({ args: ["--max-pending", "1", "--max-body", "2000", "--max-ws-message", "2000"] }, async (server) => {
        const bayeux = server.bayeux;
        const before = await scrape(server.url);

        const [{ clientId: poller }] = await post(bayeux, [handshake("long-polling")]);
        await post(bayeux, [connect(poller, "long-polling", 0)]);
        await post(bayeux, [subscribe(poller)]);
        const socket = await openSocket(bayeux);
        const { clientId: pusher } = await socket.call(handshake("websocket"));
        await socket.call(subscribe(pusher));
        // Subscribed and never connecting: the second message puts it over --max-pending 1.
        const [{ clientId: silent }] = await post(bayeux, [handshake("long-polling")]);
        await post(bayeux, [subscribe(silent)]);
        socket.send(connect(pusher, "websocket", 30000));
        let during;
        for (const end = Date.now() + 5000; (during = await scrape(server.url)).get("korvane_connects_held") !== 1; await sleep(10)) {
            assert.ok(Date.now() < end, "the WebSocket connect is not held");
        }
        const gauges = ["long-polling", "websocket", "none"].map((type) => `korvane_clients{connection_type="${type}"}`)
            .concat("korvane_connects_held", "korvane_routing_sessions", "korvane_routing_patterns");
        assert.deepEqual(gauges.map((name) => during.get(name)), [1, 1, 1, 1, 3, 1]);

        await post(bayeux, [{ channel: "/room", clientId: poller, data: { n: 1 } }]);
        await until(() => socket.messages.some((message) => message.channel === "/room"), 5000, "the delivery over WebSocket");
        await socket.call({ channel: "/room", clientId: pusher, data: { n: 2 } });
        const [delivery] = await post(bayeux, [connect(poller, "long-polling", 0)]);
        assert.deepEqual(delivery.data, { n: 2 });

        const refused = [
            await fetch(bayeux, { method: "POST", body: "x".repeat(2001) }),
            await fetch(bayeux, { method: "POST", headers: { "x-pad": "x".repeat(9000) }, body: "[]" }),
            await upgradeFrom("http://elsewhere.example", server.url),
        ];
        assert.deepEqual(refused.map((response) => response.status ?? response.statusCode), [413, 431, 403]);
        const oversized = new WebSocket(bayeux.replace(/^http/, "ws"));
        await once(oversized, "open");
        oversized.send("x".repeat(2001));
        assert.equal((await once(oversized, "close"))[0], 1009);

        await post(bayeux, [{ channel: "/meta/disconnect", clientId: poller }]);
        await socket.call({ channel: "/meta/disconnect", clientId: pusher });
        socket.socket.close();
        await once(socket.socket, "close");

        const scrapes = sent.scrapes;
        const after = await scrape(server.url);
        // [sample, delta]; the scrapes before `after` are 200 responses too.
        const deltas = [
            ["korvane_handshakes_total", 3], ["korvane_disconnects_total", 2], ["korvane_clients_dropped_pending_total", 1],
            ["korvane_clients_swept_total", 0], ["korvane_short_polls_total", 0], ["korvane_messages_published_total", 2],
            ["korvane_deliveries_total", 4],
            ['korvane_transport_received_bytes_total{transport="long-polling"}', sent.poll],
            ['korvane_transport_sent_bytes_total{transport="long-polling"}', received.poll],
            ['korvane_transport_received_bytes_total{transport="websocket"}', sent.socket],
            ['korvane_transport_sent_bytes_total{transport="websocket"}', received.socket],
            ["korvane_websocket_frames_received_total", sent.frames], ["korvane_websocket_frames_sent_total", received.frames],
            ['korvane_http_responses_total{class="1xx"}', 2], ['korvane_http_responses_total{class="2xx"}', sent.posts + scrapes],
            ['korvane_http_responses_total{class="4xx"}', 3], ['korvane_http_responses_total{class="5xx"}', 0],
            ['korvane_requests_refused_total{limit="body"}', 1], ['korvane_requests_refused_total{limit="header"}', 1],
            ['korvane_requests_refused_total{limit="origin"}', 1], ['korvane_requests_refused_total{limit="message_size"}', 1],
            ['korvane_websocket_cut_total{reason="backlog"}', 0], ["korvane_connections_refused_total", 0],
            ['korvane_clients{connection_type="long-polling"}', 0], ["korvane_connects_held", 0], ["korvane_routing_sessions", 0],
        ];
        assert.deepEqual(deltas.map(([name]) => [name, after.get(name) - before.get(name)]), deltas);
        assert.equal(after.get("korvane_pending_messages_high_water"), 2);
        assert.ok(after.get("process_resident_memory_bytes") > 0 && after.get("process_open_fds") > 0);
    }));

test("a public listener shows metrics only on --metrics-listen", async () => {
    for (const [args, listened] of [[[], false], [["--metrics-listen", "127.0.0.1:0"], true]]) {
        await withServer({ listen: ":0", args }, async (server) => {
            assert.equal((await fetch(new URL("/metrics", server.url))).status, 404);
            if (listened) {
                await until(() => /metrics at \S+/.test(server.output()), 5000, "the metrics address");
                const [, listener] = server.output().match(/metrics at (\S+)/);
                assert.ok((await scrape(new URL("/", listener))).has("korvane_handshakes_total"));
                assert.equal((await fetch(new URL("/bayeux", listener))).status, 404);
            } else {
                assert.doesNotMatch(server.output(), /metrics at/);
            }
        });
    }
});
