// The cometd JavaScript client on its Node adapter, used as a black box, with promise
// helpers for the steps a test takes.

import { adapt } from "cometd-nodejs-client";
import { CometD } from "cometd";

adapt();

// A client on one transport with a cookie jar of its own, so that it counts as a browser of its own.
export function newClient(bayeuxUrl, transport, { config = {} } = {}) {
    const cometd = new CometD();
    for (const name of cometd.getTransportTypes()) {
        if (name !== transport) cometd.unregisterTransport(name);
    }
    cometd.configure({ url: bayeuxUrl, logLevel: "warn", ...config });
    cometd.findTransport(transport).context = { cookieStore: {} };
    return cometd;
}

// Calls `start(callback)` and settles with the reply: resolved if successful.
const replied = (start) =>
    new Promise((resolve, reject) => start((reply) => (reply.successful ? resolve(reply) : reject(new Error(JSON.stringify(reply))))));

export const handshake = (cometd, props = {}) => replied((done) => cometd.handshake(props, done));
export const publish = (cometd, channel, data) => replied((done) => cometd.publish(channel, data, done));
export const unsubscribe = (cometd, handle) => replied((done) => cometd.unsubscribe(handle, done));

// Subscribes; `onMessage` gets each message. Resolves with the subscription handle.
export function subscribe(cometd, channel, onMessage) {
    let handle;
    return replied((done) => (handle = cometd.subscribe(channel, onMessage, done))).then(() => handle);
}

// Resolves with the disconnect reply; at once for a client that is already disconnected.
export function disconnect(cometd) {
    return cometd.isDisconnected() ? Promise.resolve({ successful: true }) : new Promise((resolve) => cometd.disconnect(resolve));
}

export const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

// Resolves once `condition()` holds, checking every 10 ms; rejects after `ms`. `what` may be
// a function, read when the wait times out.
export async function until(condition, ms = 5000, what = "condition") {
    for (const end = Date.now() + ms; !condition(); await sleep(10)) {
        if (Date.now() > end) throw new Error(`timed out waiting for ${typeof what === "function" ? what() : what}`);
    }
}
