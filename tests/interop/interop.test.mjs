// The cometd JavaScript client against our server, over long-polling and over
// websocket: every case runs on both transports.

import { after, before, describe, test } from "node:test";
import assert from "node:assert/strict";

import { startServer } from "./server.mjs";
import { disconnect, handshake, newClient, publish, sleep, subscribe, unsubscribe, until } from "./client.mjs";

for (const transport of ["long-polling", "websocket"]) {
    describe(`cometd over ${transport}`, () => {
        let server;
        const clients = [];
        // A handshaken client of its own browser, disconnected after the suite.
        const client = async (options = {}) => {
            const cometd = newClient(server.bayeux, transport, options);
            clients.push(cometd);
            await handshake(cometd);
            assert.equal(cometd.getTransport().type, transport);
            return cometd;
        };

        before(async () => {
            server = await startServer();
        });
        after(async () => {
            await Promise.all(clients.map((cometd) => disconnect(cometd)));
            await server.stop();
        });

        test("a message reaches the other subscriber and not its publisher", async () => {
            const alice = await client();
            const bob = await client();
            const seenByAlice = [];
            const seenByBob = [];
            await subscribe(alice, "/chat/basic", (message) => seenByAlice.push(message.data));
            await subscribe(bob, "/chat/basic", (message) => seenByBob.push(message.data));
            await publish(bob, "/chat/basic", { text: "hello" });
            await until(() => seenByAlice.length === 1, 5000, "alice's message");
            assert.deepEqual(seenByAlice, [{ text: "hello" }]);
            await sleep(100);
            assert.deepEqual(seenByBob, [], "the publisher does not receive its own message");
        });

        test("wildcards match one level with /* and every level with /**", async () => {
            const listener = await client();
            const publisher = await client();
            const one = [];
            const all = [];
            await subscribe(listener, "/wild/*", (message) => one.push(message.channel));
            await subscribe(listener, "/wild/**", (message) => all.push(message.channel));
            for (const channel of ["/wild/a", "/wild/a/b", "/wild/a/b/c", "/wilder/a"]) {
                await publish(publisher, channel, { channel });
            }
            await until(() => all.length === 3, 5000, "deep deliveries");
            await sleep(50);
            assert.deepEqual(one, ["/wild/a"]);
            assert.deepEqual(all, ["/wild/a", "/wild/a/b", "/wild/a/b/c"]);
        });

        test("unsubscribe stops delivery and a disconnected client is gone", async () => {
            const listener = await client();
            const publisher = await client();
            const seen = [];
            const handle = await subscribe(listener, "/stop/here", (message) => seen.push(message.data.n));
            await publish(publisher, "/stop/here", { n: 1 });
            await until(() => seen.length === 1);
            await unsubscribe(listener, handle);
            await publish(publisher, "/stop/here", { n: 2 });
            await sleep(150);
            assert.deepEqual(seen, [1]);
            const reply = await disconnect(listener);
            assert.equal(reply.successful, true);
            assert.equal(listener.isDisconnected(), true);
        });

        test("data arrives intact: nesting, unicode, numbers at the edges, 100 KB", async () => {
            const listener = await client();
            const publisher = await client({ config: { maxSendBayeuxMessageSize: 256 * 1024 } });
            const values = [
                { nested: { list: [1, [2, [3, { deep: [null, true, false] }]]], empty: {}, none: [] } },
                { raw: "héllo wörld ✓ 日本語 😀 𝄞", escaped: "\u00e9\u2713\ud83d\ude00", controls: "tab\tline\nquote\"back\\" },
                { numbers: [Number.MAX_VALUE, Number.MIN_VALUE, -Number.MAX_VALUE, Number.MAX_SAFE_INTEGER, -0.5e-300, 0.1] },
                { big: "x".repeat(100 * 1024) },
            ];
            const seen = [];
            await subscribe(listener, "/data/intact", (message) => seen.push(message.data));
            for (const value of values) {
                await publish(publisher, "/data/intact", value);
            }
            await until(() => seen.length === values.length, 10000, "all values");
            assert.deepEqual(seen, values);
        });

        test("500 messages from one publisher arrive in order, none lost, none twice", async () => {
            const listener = await client();
            const publisher = await client();
            const seen = [];
            await subscribe(listener, "/order/one", (message) => seen.push(message.data.seq));
            const sends = [];
            for (let seq = 0; seq < 500; ++seq) {
                sends.push(publish(publisher, "/order/one", { seq }));
            }
            await Promise.all(sends);
            await until(() => seen.length >= 500, 20000, "500 messages");
            await sleep(100);
            assert.deepEqual(seen, Array.from({ length: 500 }, (_, seq) => seq));
        });

        test("50 clients in 5 rooms each receive exactly their rooms' messages", async () => {
            const members = [];
            for (let index = 0; index < 50; ++index) {
                const room = `/rooms/${index % 5}`;
                const member = { room, cometd: await client(), seen: [] };
                await subscribe(member.cometd, room, (message) => member.seen.push(message.data.text));
                members.push(member);
            }
            const publisher = await client();
            for (let room = 0; room < 5; ++room) {
                await publish(publisher, `/rooms/${room}`, { text: `to ${room}` });
            }
            await until(() => members.every((member) => member.seen.length >= 1), 10000, "every room");
            await sleep(100);
            for (const member of members) {
                assert.deepEqual(member.seen, [`to ${member.room.slice(-1)}`], member.room);
            }
        });

        test("a batch of publishes arrives complete and in order", async () => {
            const listener = await client();
            const publisher = await client();
            const seen = [];
            await subscribe(listener, "/batch/room", (message) => seen.push(message.data.n));
            const replies = [];
            publisher.batch(() => {
                for (let n = 0; n < 5; ++n) {
                    publisher.publish("/batch/room", { n }, (reply) => replies.push(reply.successful));
                }
            });
            await until(() => seen.length === 5 && replies.length === 5, 5000, "the batch");
            assert.deepEqual(seen, [0, 1, 2, 3, 4]);
            assert.deepEqual(replies, [true, true, true, true, true]);
        });
    });

    test(`a ${transport} client recovers by itself when its server restarts on the same port`, async () => {
        let server = await startServer();
        const port = server.port;
        const listener = newClient(server.bayeux, transport, { config: { maxBackoff: 500 } });
        const publisherOf = async () => {
            const cometd = newClient(server.bayeux, transport);
            await handshake(cometd);
            return cometd;
        };
        const seen = [];
        let handshakes = 0;
        // As applications do: subscriptions are made again in the handshake listener.
        listener.addListener("/meta/handshake", (reply) => {
            if (reply.successful) {
                ++handshakes;
                listener.batch(() => listener.subscribe("/restart/room", (message) => seen.push(message.data.n)));
            }
        });
        listener.handshake();
        await until(() => handshakes === 1, 5000, "first handshake");
        await sleep(100);
        let publisher = await publisherOf();
        await publish(publisher, "/restart/room", { n: 1 });
        await until(() => seen.length === 1, 5000, "before the restart");
        await disconnect(publisher);

        await server.stop();
        await sleep(300);
        server = await startServer({ listen: `127.0.0.1:${port}` });
        await until(() => handshakes === 2, 20000, "the re-handshake");
        await sleep(200);
        publisher = await publisherOf();
        await publish(publisher, "/restart/room", { n: 2 });
        await until(() => seen.length === 2, 5000, "after the restart");
        assert.deepEqual(seen, [1, 2]);
        await Promise.all([disconnect(publisher), disconnect(listener)]);
        await server.stop();
    });
}

test("clients sharing one cookie jar count as one browser: past four held connects the rest short-poll", async () => {
    const server = await startServer();
    const members = [];
    for (let index = 0; index < 6; ++index) {
        const cometd = newClient(server.bayeux, "long-polling", { ownCookies: false });
        await handshake(cometd);
        const member = { cometd, seen: [], intervals: [] };
        cometd.addListener("/meta/connect", (reply) => member.intervals.push(reply.advice?.interval));
        await subscribe(cometd, "/shared/jar", (message) => member.seen.push(message.data.n));
        members.push(member);
    }
    await sleep(500);
    const publisher = newClient(server.bayeux, "long-polling");
    await handshake(publisher);
    await publish(publisher, "/shared/jar", { n: 1 });
    await until(() => members.every((member) => member.seen.length === 1), 10000, "every shared-jar client");
    const shortPolling = members.filter((member) => member.intervals.includes(200));
    assert.ok(shortPolling.length >= 2, `at least two clients were turned into short polls (${shortPolling.length})`);
    await Promise.all([...members.map((member) => disconnect(member.cometd)), disconnect(publisher)]);
    await server.stop();
});
