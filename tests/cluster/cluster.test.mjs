// Three korvane-bayeux servers sharing their channels through one redis-server, with
// the cometd client on each: delivery across servers on both transports, no echo and no
// duplicates, and Redis going away and back, with order per publisher across it.

import { after, before, describe, test } from "node:test";
import assert from "node:assert/strict";
import { randomBytes } from "node:crypto";
import net from "node:net";

import { startRedis, startServer } from "../support/launch.mjs";
import { disconnect, handshake, newClient, publish, sleep, subscribe, until } from "../support/cometd.mjs";

const clients = [];
const client = async (server, transport = "long-polling") => {
    const cometd = newClient(server.bayeux, transport);
    clients.push(cometd);
    await handshake(cometd);
    return cometd;
};
const clusterWarnings = (server) => server.output().split("\n").filter((line) => line.includes("[korvane::cluster]"));

describe("servers sharing channels through Redis", () => {
    const password = `pw-${randomBytes(6).toString("hex")}`;
    const prefix = `korvane-test-${randomBytes(3).toString("hex")}:`;
    let redis;
    const servers = {};
    let probes = 0;
    const startClustered = (url, env = {}) => startServer({ args: ["--redis", url, "--redis-prefix", prefix], env });

    // Publishes from `from` until a subscriber on `to` sees it: the bridges of both are up.
    const awaitCrossing = async (from, to) => {
        const channel = `/probe/${++probes}`;
        const [listener, talker] = [await client(to), await client(from)];
        let seen = 0;
        await subscribe(listener, channel, () => ++seen);
        for (const end = Date.now() + 15000; seen === 0; await sleep(100)) {
            assert.ok(Date.now() < end, `no message crossed to ${to.url} within 15 s`);
            await publish(talker, channel, { probe: true });
        }
    };

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
        await Promise.all(clients.map(disconnect));
        for (const server of Object.values(servers)) await server.stop();
        await redis?.stop();
    });

    for (const transport of ["long-polling", "websocket"]) {
        test(`over ${transport}: a message reaches every other server's subscribers once, as the publisher sent it, and never comes back`, async () => {
            const channel = `/room/${transport}`;
            const names = ["a", "b", "c", "publisher"];
            const on = [servers.a, servers.b, servers.c, servers.b];
            const seen = {};
            for (const [index, name] of names.entries()) {
                seen[name] = [];
                on[index] = await client(on[index], transport);
                await subscribe(on[index], channel, (message) => seen[name].push(message));
            }
            const data = { text: "héllo \u2028 \"world\"", n: 1.5e300, list: [null, true, { deep: [] }] };
            await publish(on[3], channel, data);
            await until(() => seen.a.length && seen.b.length && seen.c.length, 5000, "deliveries on all servers");
            await sleep(300);
            assert.deepEqual([seen.a.length, seen.b.length, seen.c.length], [1, 1, 1], "one delivery on each server");
            assert.deepEqual(seen.publisher, [], "the publisher does not get its own message");
            for (const message of [seen.a[0], seen.c[0]]) {
                assert.deepEqual(message.data, data);
                assert.equal(message.channel, channel);
                assert.equal(message.clientId, seen.b[0].clientId, "the same clientId as a local subscriber sees");
                assert.equal(message.id, seen.b[0].id, "the same id as a local subscriber sees");
            }
        });
    }

    test("while Redis is away each server serves its own clients; delivery across servers resumes on its own", async () => {
        const [listener, neighbour, remote] = [await client(servers.a), await client(servers.a), await client(servers.b)];
        const [localSeen, remoteSeen] = [[], []];
        await subscribe(listener, "/local/room", (message) => localSeen.push(message.data.n));
        await subscribe(listener, "/shared/room", (message) => remoteSeen.push(message.data.n));
        const warningsBefore = clusterWarnings(servers.a).length;

        await redis.stop();
        await publish(neighbour, "/local/room", { n: 1 });
        await until(() => localSeen.length === 1, 3000, "a local delivery while Redis is down");
        let n = 0;
        while (n < 5) await publish(remote, "/shared/room", { n: n++ });
        await sleep(1500);
        assert.equal(clusterWarnings(servers.a).length - warningsBefore, 1, "one warning for the outage, not one per attempt");

        redis = await startRedis({ port: redis.port, password });
        const firstAfter = n;
        for (const end = Date.now() + 15000; !remoteSeen.some((value) => value >= firstAfter); await sleep(100)) {
            assert.ok(Date.now() < end, "delivery did not resume within 15 s");
            await publish(remote, "/shared/room", { n: n++ });
        }
        const resumed = n;
        while (n < resumed + 20) await publish(remote, "/shared/room", { n: n++ });
        await until(() => remoteSeen.includes(n - 1), 5000, "the messages after the restart");
        await sleep(200);
        assert.equal(new Set(remoteSeen).size, remoteSeen.length, "no duplicates");
        assert.deepEqual([...remoteSeen].sort((x, y) => x - y), remoteSeen, "in order");
        assert.deepEqual(remoteSeen.filter((value) => value >= resumed), Array.from({ length: 20 }, (_, k) => resumed + k), "nothing lost once back");
        for (const server of Object.values(servers)) assert.ok(!server.output().includes(password), "the password is never logged");
    });
});

test("a Redis that accepts connections and never answers holds up no publisher; what overflows the buffer is dropped with one counted warning", async () => {
    const sockets = new Set();
    const silent = net.createServer((socket) => sockets.add(socket.on("error", () => {})));
    await new Promise((resolve) => silent.listen(0, "127.0.0.1", resolve));
    const server = await startServer({ args: ["--redis", `redis://127.0.0.1:${silent.address().port}`, "--redis-buffer", "10"] });
    const [listener, publisher] = [await client(server), await client(server)];
    const seen = [];
    await subscribe(listener, "/busy/room", (message) => seen.push(message.data.n));
    const started = Date.now();
    for (let n = 0; n < 50; ++n) await publish(publisher, "/busy/room", { n });
    await until(() => seen.length === 50, 3000, "the local deliveries");
    assert.ok(Date.now() - started < 3000, "publishing waited for Redis");
    // The first refusal is reported at once, with its count; later ones wait for the next warning, ten seconds on.
    await until(() => clusterWarnings(server).length > 0, 3000, "the warning");
    await sleep(500);
    assert.deepEqual(clusterWarnings(server).map((line) => line.replace(/^.*\[korvane::cluster\]/, "")), [
        " 256: Cluster buffer full: messages for Redis are being dropped; messages dropped since the last warning: 1",
    ]);
    await Promise.all([disconnect(listener), disconnect(publisher)]);
    await server.stop();
    sockets.forEach((socket) => socket.destroy());
    await new Promise((resolve) => silent.close(resolve));
});
