// The demo page in headless Chromium (Debian's, driven by playwright-core) against a
// freshly started server: two pages in one room talk, a third in another room hears
// nothing, over WebSocket and over long-polling, and a reloaded page comes back.
// Screenshots of every page go to $KORVANE_ARTIFACTS.

import { after, before, describe, test } from "node:test";
import assert from "node:assert/strict";
import { mkdirSync } from "node:fs";
import path from "node:path";
import { chromium } from "playwright-core";

import { startServer } from "../support/launch.mjs";

const artifacts = process.env.KORVANE_ARTIFACTS ?? path.resolve("build/browser");
mkdirSync(artifacts, { recursive: true });

const chromiumArgs = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync"];

describe("the chat page", () => {
    let server;
    let browser;

    before(async () => {
        server = await startServer({ args: ["--heartbeat", "1"] });
        browser = await chromium.launch({ executablePath: "/usr/bin/chromium", args: chromiumArgs });
    });
    after(async () => {
        await browser?.close();
        await server?.stop();
    });

    // A page of a browser of its own, joined to `room` as `name`, connected.
    async function join(name, room, query) {
        const context = await browser.newContext({ viewport: { width: 900, height: 640 } });
        const page = await context.newPage();
        const errors = [];
        page.on("pageerror", (error) => errors.push(error.message));
        await page.goto(new URL(`/${query}`, server.url).href);
        await page.getByTestId("name-input").fill(name);
        await page.getByTestId("room-input").fill(room);
        await page.getByTestId("join-button").click();
        await page.locator('[data-testid="status"][data-state="connected"]').waitFor({ timeout: 10000 });
        await page.locator(`[data-testid="current-room"][data-joined="${room}"]`).waitFor({ timeout: 5000 });
        return { page, errors, name };
    }

    async function say(member, text) {
        await member.page.getByTestId("message-input").fill(text);
        await member.page.getByTestId("send-button").click();
    }
    const heard = (member, text) => member.page.locator('[data-testid="message"]', { hasText: text }).waitFor({ timeout: 5000 });

    for (const [transport, query] of [["websocket", ""], ["long-polling", "?transport=long-polling"]]) {
        test(`two pages in a room talk over ${transport}, a page in another room hears nothing`, async () => {
            const room = `room-${transport}`;
            const alice = await join("Alice", room, query);
            const bob = await join("Bob", room, query);
            const carol = await join("Carol", `elsewhere-${transport}`, query);
            for (const member of [alice, bob, carol]) {
                assert.equal(await member.page.getByTestId("transport").textContent(), transport);
            }

            await say(alice, `hello from Alice over ${transport}`);
            await heard(bob, `hello from Alice over ${transport}`);
            await say(bob, "hi Alice");
            await heard(alice, "hi Alice");
            await bob.page.locator('[data-testid="heartbeat"]', { hasText: /\d/ }).waitFor({ timeout: 3000 });

            // A page reloaded mid-conversation comes back to its room and keeps receiving.
            await bob.page.reload();
            await bob.page.locator('[data-testid="status"][data-state="connected"]').waitFor({ timeout: 10000 });
            // Back in its room once the server has its subscription again, not merely once the title shows the room.
            await bob.page.locator(`[data-testid="current-room"][data-joined="${room}"]`).waitFor({ timeout: 5000 });
            await say(alice, "welcome back, Bob");
            await heard(bob, "welcome back, Bob");

            await new Promise((resolve) => setTimeout(resolve, 300));
            assert.equal(await carol.page.locator('[data-testid="message"]').count(), 0, "carol's room stays quiet");
            for (const member of [alice, bob, carol]) {
                await member.page.screenshot({ path: path.join(artifacts, `${transport}-${member.name}.png`) });
                assert.deepEqual(member.errors, [], `${member.name}'s page raised no error`);
                await member.page.context().close();
            }
        });
    }
});
