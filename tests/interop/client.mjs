// The cometd JavaScript client on its Node adapter, used as a black box, with promise
// helpers for the steps a test takes.

import { adapt } from "cometd-nodejs-client";
import { CometD } from "cometd";

adapt();

// A client on one transport. With `ownCookies` (the default) it keeps its own cookie
// jar, so that it counts as a browser of its own; otherwise it shares the process's.
export function newClient(bayeuxUrl, transport, { ownCookies = true, config = {} } = {}) {
    const cometd = new CometD();
    for (const name of cometd.getTransportTypes()) {
        if (name !== transport) {
            cometd.unregisterTransport(name);
        }
    }
    cometd.configure({ url: bayeuxUrl, logLevel: "warn", ...config });
    if (ownCookies) {
        cometd.findTransport(transport).context = { cookieStore: {} };
    }
    return cometd;
}

export function handshake(cometd) {
    return new Promise((resolve, reject) => {
        cometd.handshake((reply) => (reply.successful ? resolve(reply) : reject(new Error(JSON.stringify(reply)))));
    });
}

// Subscribes; `onMessage` gets each message. Resolves with the subscription handle.
export function subscribe(cometd, channel, onMessage) {
    return new Promise((resolve, reject) => {
        const handle = cometd.subscribe(channel, onMessage, (reply) =>
            reply.successful ? resolve(handle) : reject(new Error(JSON.stringify(reply))),
        );
    });
}

export function unsubscribe(cometd, handle) {
    return new Promise((resolve, reject) => {
        cometd.unsubscribe(handle, (reply) => (reply.successful ? resolve(reply) : reject(new Error(JSON.stringify(reply)))));
    });
}

export function publish(cometd, channel, data) {
    return new Promise((resolve, reject) => {
        cometd.publish(channel, data, (reply) => (reply.successful ? resolve(reply) : reject(new Error(JSON.stringify(reply)))));
    });
}

// Resolves with the disconnect reply; at once for a client that is already disconnected.
export function disconnect(cometd) {
    if (cometd.isDisconnected()) {
        return Promise.resolve({ successful: true });
    }
    return new Promise((resolve) => cometd.disconnect(resolve));
}

// Resolves once `condition()` holds, checking every 10 ms; rejects after `ms`.
export function until(condition, ms = 5000, what = "condition") {
    return new Promise((resolve, reject) => {
        const started = Date.now();
        const check = () => {
            if (condition()) {
                resolve();
            } else if (Date.now() - started > ms) {
                reject(new Error(`timed out waiting for ${what}`));
            } else {
                setTimeout(check, 10);
            }
        };
        check();
    });
}

export const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));
