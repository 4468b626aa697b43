// The cometd JavaScript client against our server, every case on both transports.

import { after, before, describe, test } from "node:test";
import assert from "node:assert/strict";

import { startServer } from "../support/launch.mjs";
import { disconnect, handshake, newClient, publish, sleep, subscribe, unsubscribe, until } from "../support/cometd.mjs";

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
        before(async () => (server = await startServer()));
        after(async () => {
            await Promise.all(clients.map(disconnect));
            await server.stop();
        });

        test("subscribe, publish, unsubscribe, disconnect: data intact, to the others and not the publisher", async () => {
            const listener = await client();
            const publisher = await client({ config: { maxSendBayeuxMessageSize: 256 * 1024 } });
            const values = [
                { nested: { list: [1, [2, [3, { deep: [null, true, false] }]]], empty: {}, none: [] } },
                { raw: "héllo wörld ✓ 日本語 😀 𝄞", escaped: "\u00e9\u2713\ud83d\ude00", controls: "tab\tline\nquote\"back\\" },
                { numbers: [Number.MAX_VALUE, Number.MIN_VALUE, -Number.MAX_VALUE, Number.MAX_SAFE_INTEGER, -0.5e-300, 0.1] },
                { big: "x".repeat(100 * 1024) },
            ];
            const [seen, echoed] = [[], []];
            const handle = await subscribe(listener, "/data/intact", (message) => seen.push(message.data));
            await subscribe(publisher, "/data/intact", (message) => echoed.push(message.data));
            for (const value of values) await publish(publisher, "/data/intact", value);
            await until(() => seen.length === values.length, 10000, "all values");
            assert.deepEqual(seen, values);

            await unsubscribe(listener, handle);
            await publish(publisher, "/data/intact", { after: "unsubscribe" });
            await sleep(150);
            assert.equal(seen.length, values.length, "nothing after the unsubscribe");
            assert.deepEqual(echoed, [], "the publisher does not receive its own messages");
            assert.equal((await disconnect(listener)).successful, true);
            assert.equal(listener.isDisconnected(), true);
        });

        test("500 messages, some in batches, arrive once each and in order", async () => {
            const [listener, publisher] = [await client(), await client()];
            const [seen, sends] = [[], []];
            await subscribe(listener, "/order/one", (message) => seen.push(message.data.seq));
            for (let seq = 0; seq < 500; seq += 10) {
                const tens = () => Array.from({ length: 10 }, (_, n) => sends.push(publish(publisher, "/order/one", { seq: seq + n })));
                if (seq % 20) publisher.batch(tens);
                else tens();
            }
            await Promise.all(sends);
            await until(() => seen.length >= 500, 20000, "500 messages");
            await sleep(100);
            assert.deepEqual(seen, Array.from({ length: 500 }, (_, seq) => seq));
        });

        test("a refusal comes back as an error reply", async () => {
            const cometd = await client();
            await assert.rejects(publish(cometd, "/wild/*", {}), /"successful":false,"error":"Unable to publish. Unknown error"/);
        });
    });

    test(`a ${transport} client recovers by itself when its server restarts on the same port`, async () => {
        let server = await startServer();
        const listener = newClient(server.bayeux, transport, { config: { maxBackoff: 500 } });
        const seen = [];
        let handshakes = 0;
        let subscribed = 0;
        // As applications do: subscriptions are made again in the handshake listener.
        listener.addListener("/meta/handshake", (reply) => {
            if (reply.successful) {
                ++handshakes;
                listener.batch(() =>
                    listener.subscribe("/restart/room", (message) => seen.push(message.data.n), (answer) => answer.successful && ++subscribed)
                );
            }
        });
        listener.handshake();
        const publishOnce = async (n) => {
            await until(() => subscribed === n, 5000, `subscription ${n}`);
            const publisher = newClient(server.bayeux, transport);
            await handshake(publisher);
            await publish(publisher, "/restart/room", { n });
            await until(() => seen.length === n, 5000, `message ${n}`);
            await disconnect(publisher);
        };
        await until(() => handshakes === 1, 5000, "first handshake");
        await publishOnce(1);
        await server.stop();
        await sleep(300);
        server = await startServer({ listen: `127.0.0.1:${server.port}` });
        await until(() => handshakes === 2, 20000, "the re-handshake");
        await publishOnce(2);
        assert.deepEqual(seen, [1, 2]);
        await disconnect(listener);
        await server.stop();
    });
}
