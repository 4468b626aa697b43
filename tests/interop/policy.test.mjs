// The cometd JavaScript client against a server whose clients may subscribe and publish
// below /public only: refusals reach the refused client's callbacks, and no one else.

import { after, before, describe, test } from "node:test";
import assert from "node:assert/strict";

import { startServer } from "../support/launch.mjs";
import { disconnect, handshake, newClient, publish, sleep, subscribe, until } from "../support/cometd.mjs";

for (const transport of ["long-polling", "websocket"]) {
    describe(`allow lists over ${transport}`, () => {
        let server;
        const clients = [];
        before(async () => {
            server = await startServer({ args: ["--subscribe-allow", "/public/**", "--publish-allow", "/public/*"] });
        });
        after(async () => {
            await Promise.all(clients.map(disconnect));
            await server.stop();
        });

        test("a denied subscribe and publish fail with their errors while the room carries on", async () => {
            const [member, intruder] = [newClient(server.bayeux, transport), newClient(server.bayeux, transport)];
            clients.push(member, intruder);
            await Promise.all([handshake(member), handshake(intruder)]);
            const heard = [];
            // Everything below /public: the denied publish would reach the member if it went out.
            await subscribe(member, "/public/**", (message) => heard.push(message.data));

            await assert.rejects(subscribe(intruder, "/private/x", () => {}), (error) => {
                const reply = JSON.parse(error.message);
                assert.deepEqual([reply.successful, reply.error], [false, "403:/private/x:subscription denied"]);
                return true;
            });
            await assert.rejects(subscribe(intruder, "/**", () => {}), /"error":"403:\/\*\*:subscription denied"/);
            await assert.rejects(publish(intruder, "/public/room/deeper", { n: 0 }), (error) => {
                const reply = JSON.parse(error.message);
                assert.deepEqual([reply.successful, reply.error], [false, "403:/public/room/deeper:publish denied"]);
                return true;
            });

            // Both clients are still in good standing: the refused one is heard in the room.
            await publish(intruder, "/public/room", { n: 1 });
            await until(() => heard.length === 1, 5000, "the allowed message");
            await sleep(100);
            assert.deepEqual(heard, [{ n: 1 }]);
            assert.equal(member.isDisconnected() || intruder.isDisconnected(), false);
        });
    });
}
