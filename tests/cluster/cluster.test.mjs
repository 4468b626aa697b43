// Three korvane-bayeux servers sharing their channels through one redis-server, with
// the cometd client on each: delivery across servers on both transports, wildcards,
// no echo and no duplicates, order per publisher, a Redis restart and a dead server.

import { after, before, describe, test } from "node:test";
import assert from "node:assert/strict";
import { randomBytes } from "node:crypto";
import net from "node:net";

import { startServer } from "../interop/server.mjs";
import { disconnect, handshake, newClient, publish, sleep, subscribe, until } from "../interop/client.mjs";
import { redisMissing, startRedis } from "./redis.mjs";

const missing = redisMissing();
if (missing) {
    console.log(`cluster tests skipped: ${missing}`);
}

describe("servers sharing channels through Redis", { skip: missing ?? false }, () => {
    const password = `pw-${randomBytes(6).toString("hex")}`;
    const prefix = `korvane-test-${randomBytes(3).toString("hex")}:`;
    let redis;
    const servers = {};
    const clients = [];
    let probes = 0;

    const startClustered = async (url, env = {}) => {
        const saved = process.env.KORVANE_SERVER_ENV;
        process.env.KORVANE_SERVER_ENV = JSON.stringify(env);
        try {
            return await startServer({ args: ["--redis", url, "--redis-prefix", prefix] });
        } finally {
            if (saved === undefined) {
                delete process.env.KORVANE_SERVER_ENV;
            } else {
                process.env.KORVANE_SERVER_ENV = saved;
            }
        }
    };

    const client = async (server, transport = "long-polling") => {
        const cometd = newClient(server.bayeux, transport);
        clients.push(cometd);
        await handshake(cometd);
        assert.equal(cometd.getTransport().type, transport);
        return cometd;
    };

    // Publishes from `from` until a subscriber on `to` sees it: the bridges of both are up.
    const awaitCrossing = async (from, to, ms = 15000) => {
        const channel = `/probe/${++probes}`;
        const listener = await client(to);
        const talker = await client(from);
        let seen = 0;
        await subscribe(listener, channel, () => ++seen);
        const started = Date.now();
        while (seen === 0) {
            assert.ok(Date.now() - started < ms, `no message crossed to ${to.url} within ${ms} ms`);
            await publish(talker, channel, { probe: true });
            await sleep(100);
        }
    };

    const clusterWarnings = (server) => server.stderr().split("\n").filter((line) => line.includes("[korvane::cluster]"));

    before(async () => {
        redis = await startRedis({ password });
        const base = `127.0.0.1:${redis.port}`;
        servers.a = await startClustered(`redis://:${password}@${base}`);
        servers.b = await startClustered(`redis://${base}`, { KORVANE_REDIS_PASSWORD: password });
        servers.c = await startClustered(`redis://:${password}@${base}/0`);
        await awaitCrossing(servers.b, servers.a);
        await awaitCrossing(servers.a, servers.b);
        await awaitCrossing(servers.a, servers.c);
    });

    after(async () => {
        await Promise.all(clients.map((cometd) => disconnect(cometd)));
        for (const server of Object.values(servers)) {
            await server.stop();
        }
        await redis?.stop();
    });

    for (const transport of ["long-polling", "websocket"]) {
        test(`over ${transport}: a message reaches every other server's subscribers once, as the publisher sent it, and never comes back`, async () => {
            const channel = `/room/${transport}`;
            const onA = await client(servers.a, transport);
            const onB = await client(servers.b, transport);
            const onC = await client(servers.c, transport);
            const publisher = await client(servers.b, transport);
            const seen = { a: [], b: [], c: [], publisher: [] };
            await subscribe(onA, channel, (message) => seen.a.push(message));
            await subscribe(onB, channel, (message) => seen.b.push(message));
            await subscribe(onC, channel, (message) => seen.c.push(message));
            await subscribe(publisher, channel, (message) => seen.publisher.push(message));
            const data = { text: "héllo \u2028 \"world\"", n: 1.5e300, list: [null, true, { deep: [] }] };
            await publish(publisher, channel, data);
            await until(() => seen.a.length && seen.b.length && seen.c.length, 5000, "deliveries on all servers");
            await sleep(300);
            assert.equal(seen.a.length, 1, "one delivery on A");
            assert.equal(seen.b.length, 1, "one delivery on B, the publisher's server");
            assert.equal(seen.c.length, 1, "one delivery on C");
            assert.deepEqual(seen.publisher, [], "the publisher does not get its own message");
            for (const message of [seen.a[0], seen.c[0]]) {
                assert.deepEqual(message.data, data);
                assert.equal(message.channel, channel);
                assert.equal(message.clientId, seen.b[0].clientId, "the same clientId as a local subscriber sees");
                assert.equal(message.id, seen.b[0].id, "the same id as a local subscriber sees");
            }
        });

        test(`over ${transport}: wildcard subscriptions match messages published on another server`, async () => {
            const listener = await client(servers.a, transport);
            const publisher = await client(servers.c, transport);
            const one = [];
            const all = [];
            await subscribe(listener, "/wild/*", (message) => one.push(message.channel));
            await subscribe(listener, "/wild/**", (message) => all.push(message.channel));
            for (const channel of ["/wild/a", "/wild/a/b", "/wilder/a", "/wild/a/b/c"]) {
                await publish(publisher, channel, { channel });
            }
            await until(() => all.length === 3, 5000, "deep deliveries");
            await sleep(200);
            assert.deepEqual(one, ["/wild/a"]);
            assert.deepEqual(all, ["/wild/a", "/wild/a/b", "/wild/a/b/c"]);
        });
    }

    test("each publisher's messages arrive in order and once, however two publishers on two servers interleave", async () => {
        const listener = await client(servers.a, "websocket");
        const fromB = await client(servers.b, "websocket");
        const fromC = await client(servers.c, "long-polling");
        const seen = { b: [], c: [] };
        await subscribe(listener, "/order", (message) => seen[message.data.from].push(message.data.n));
        const count = 150;
        const run = async (cometd, from) => {
            for (let n = 0; n < count; ++n) {
                await publish(cometd, "/order", { from, n });
            }
        };
        await Promise.all([run(fromB, "b"), run(fromC, "c")]);
        await until(() => seen.b.length >= count && seen.c.length >= count, 10000, "all messages");
        await sleep(200);
        const expected = Array.from({ length: count }, (_, n) => n);
        assert.deepEqual(seen.b, expected);
        assert.deepEqual(seen.c, expected);
    });

    test("while Redis is away each server serves its own clients; delivery across servers resumes on its own", async () => {
        const listener = await client(servers.a);
        const neighbour = await client(servers.a);
        const remote = await client(servers.b);
        const localSeen = [];
        const remoteSeen = [];
        await subscribe(listener, "/local/room", (message) => localSeen.push(message.data.n));
        await subscribe(listener, "/shared/room", (message) => remoteSeen.push(message.data.n));
        const warningsBefore = clusterWarnings(servers.a).length;

        await redis.stop();
        await publish(neighbour, "/local/room", { n: 1 });
        await until(() => localSeen.length === 1, 3000, "a local delivery while Redis is down");
        let n = 0;
        for (; n < 5; ++n) {
            await publish(remote, "/shared/room", { n });
        }
        await sleep(1500);
        assert.equal(clusterWarnings(servers.a).length - warningsBefore, 1, "one warning for the outage, not one per attempt");

        redis = await startRedis({ port: redis.port, password });
        const restarted = Date.now();
        const firstAfter = n;
        while (!remoteSeen.some((value) => value >= firstAfter)) {
            assert.ok(Date.now() - restarted < 15000, "delivery did not resume within 15 s");
            await publish(remote, "/shared/room", { n: n++ });
            await sleep(100);
        }
        const resumed = n;
        for (let k = 0; k < 20; ++k) {
            await publish(remote, "/shared/room", { n: n++ });
        }
        await until(() => remoteSeen.includes(n - 1), 5000, "the messages after the restart");
        await sleep(200);
        assert.equal(new Set(remoteSeen).size, remoteSeen.length, "no duplicates");
        assert.deepEqual([...remoteSeen].sort((x, y) => x - y), remoteSeen, "in order");
        const afterResume = remoteSeen.filter((value) => value >= resumed);
        assert.deepEqual(afterResume, Array.from({ length: n - resumed }, (_, k) => resumed + k), "nothing lost once back");
        for (const server of Object.values(servers)) {
            assert.ok(!server.stderr().includes(password), "the password is never logged");
        }
    });

    test("a killed server leaves the others serving and sharing", async () => {
        await servers.c.stop("SIGKILL");
        delete servers.c;
        const onA = await client(servers.a, "websocket");
        const onB = await client(servers.b);
        const seenOnA = [];
        const seenOnB = [];
        await subscribe(onA, "/after/kill", (message) => seenOnA.push(message.data.n));
        await subscribe(onB, "/after/kill", (message) => seenOnB.push(message.data.n));
        await publish(onB, "/after/kill", { n: 1 });
        await publish(onA, "/after/kill", { n: 2 });
        await until(() => seenOnA.length === 1 && seenOnB.length === 1, 5000, "deliveries both ways");
        assert.deepEqual(seenOnA, [1]);
        assert.deepEqual(seenOnB, [2]);
    });
});

describe("a Redis that accepts connections and never answers", () => {
    let silent;
    let server;
    let cometd;
    const sockets = new Set();

    before(async () => {
        silent = net.createServer((socket) => {
            sockets.add(socket);
            socket.on("error", () => {});
            socket.on("close", () => sockets.delete(socket));
        });
        await new Promise((resolve) => silent.listen(0, "127.0.0.1", resolve));
        server = await startServer({
            args: ["--redis", `redis://127.0.0.1:${silent.address().port}`, "--redis-buffer", "10"],
        });
        cometd = newClient(server.bayeux, "long-polling");
        await handshake(cometd);
    });

    after(async () => {
        await disconnect(cometd);
        await server.stop();
        for (const socket of sockets) {
            socket.destroy();
        }
        await new Promise((resolve) => silent.close(resolve));
    });

    test("holds up no publisher, and what does not fit the buffer is dropped with one counted warning", async () => {
        const seen = [];
        await subscribe(cometd, "/busy/room", (message) => seen.push(message.data.n));
        const started = Date.now();
        const publisher = newClient(server.bayeux, "long-polling");
        await handshake(publisher);
        for (let n = 0; n < 50; ++n) {
            await publish(publisher, "/busy/room", { n });
        }
        await until(() => seen.length === 50, 3000, "the local deliveries");
        assert.ok(Date.now() - started < 3000, "publishing waited for Redis");
        await disconnect(publisher);
        // The first refusal is reported at once, with its count; later ones wait for the next warning, ten seconds on.
        await until(() => server.stderr().includes("[korvane::cluster]"), 3000, "the warning");
        await sleep(500);
        const warnings = server.stderr().split("\n").filter((line) => line.includes("[korvane::cluster]"));
        assert.equal(warnings.length, 1, warnings.join("\n"));
        assert.match(
            warnings[0],
            /\[korvane::cluster\] 256: Cluster buffer full: messages for Redis are being dropped; messages dropped since the last warning: 1$/,
        );
    });
});
