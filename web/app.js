// The chat page: pick a name and a room, and talk in that room live.
// Messages of a room travel on the channel /chat/<room> as {"user", "text"};
// the server's heartbeat comes on /server/time as {"time"}.
import { CometD } from "/vendor/cometd/cometd.js";

const ROOM_NAME = /^[A-Za-z0-9_-]+$/;
const STATUS_TEXT = {
  connecting: "Connecting…",
  connected: "Connected",
  reconnecting: "Reconnecting…",
  disconnected: "Disconnected",
};

const page = {
  status: document.getElementById("status"),
  transport: document.getElementById("transport"),
  heartbeat: document.getElementById("heartbeat"),
  joinForm: document.getElementById("join-form"),
  joinError: document.getElementById("join-error"),
  name: document.getElementById("name"),
  room: document.getElementById("room"),
  leave: document.getElementById("leave"),
  longPolling: document.getElementById("long-polling"),
  roomTitle: document.getElementById("room-title"),
  messages: document.getElementById("messages"),
  sendForm: document.getElementById("send-form"),
  message: document.getElementById("message"),
  send: document.getElementById("send"),
};

// The room the user is in (null when none), the name they chose, and the
// subscription to the room's channel while there is one.
const chat = { room: null, user: "", subscription: null };
let connected = false;

const longPollingOnly = new URLSearchParams(location.search).get("transport") === "long-polling";
const cometd = new CometD();
if (longPollingOnly) {
  cometd.unregisterTransport("websocket");
}
cometd.configure({
  url: new URL("/bayeux", location).href,
  logLevel: "warn",
});

cometd.addListener("/meta/handshake", onHandshake);
cometd.addListener("/meta/connect", onConnect);
cometd.addListener("/meta/disconnect", () => showStatus("disconnected"));

page.longPolling.checked = longPollingOnly;
page.longPolling.addEventListener("change", switchTransport);
page.joinForm.addEventListener("submit", join);
page.leave.addEventListener("click", leave);
page.sendForm.addEventListener("submit", send);
window.addEventListener("pagehide", () => cometd.disconnect());

showStatus("connecting");
restoreChat();
cometd.handshake();

// A handshake, the first or one after the server forgot this client, drops every
// subscription: make them again.
function onHandshake(reply) {
  if (!reply.successful) {
    showStatus("reconnecting");
    return;
  }
  page.transport.textContent = cometd.getTransport()?.type ?? "none";
  chat.subscription = null;
  cometd.batch(() => {
    cometd.subscribe("/server/time", showHeartbeat);
    if (chat.room !== null) {
      chat.subscription = subscribeToRoom(chat.room);
    }
  });
}

function onConnect(reply) {
  if (cometd.isDisconnected()) {
    connected = false;
    showStatus("disconnected");
    return;
  }
  const wasConnected = connected;
  connected = reply.successful === true;
  if (connected !== wasConnected) {
    showStatus(connected ? "connected" : "reconnecting");
  }
}

function join(event) {
  event.preventDefault();
  const user = page.name.value.trim();
  const room = page.room.value.trim();
  if (user === "") {
    showJoinError("Pick a name first.");
    return;
  }
  if (!ROOM_NAME.test(room)) {
    showJoinError("A room name has letters, digits, '-' and '_' only.");
    return;
  }
  showJoinError("");
  chat.user = user;
  if (room !== chat.room) {
    leave();
    enterRoom(room);
  }
  page.message.focus();
}

// A reloaded tab comes back to the room it was in, under the same name.
function restoreChat() {
  const saved = JSON.parse(sessionStorage.getItem("chat") ?? "null");
  if (saved?.user && saved?.room && ROOM_NAME.test(saved.room)) {
    page.name.value = saved.user;
    page.room.value = saved.room;
    chat.user = saved.user;
    enterRoom(saved.room);
  }
}

function enterRoom(room) {
  chat.room = room;
  sessionStorage.setItem("chat", JSON.stringify({ user: chat.user, room }));
  page.messages.replaceChildren();
  page.roomTitle.textContent = `Room: ${room}`;
  delete page.roomTitle.dataset.joined;
  showNotice(`You joined ${room} as ${chat.user}.`);
  // Until the handshake is through, its listener subscribes instead.
  if (cometd.getClientId() !== null) {
    chat.subscription = subscribeToRoom(room);
  }
  setChatEnabled(true);
}

function leave() {
  if (chat.subscription !== null) {
    cometd.unsubscribe(chat.subscription);
    chat.subscription = null;
  }
  if (chat.room !== null) {
    showNotice(`You left ${chat.room}.`);
  }
  chat.room = null;
  sessionStorage.removeItem("chat");
  page.roomTitle.textContent = "Not in a room";
  delete page.roomTitle.dataset.joined;
  setChatEnabled(false);
}

function subscribeToRoom(room) {
  return cometd.subscribe(`/chat/${room}`, (message) => showChatMessage(message.data, false), (reply) => {
    if (!reply.successful) {
      showNotice(`Could not join ${room}: ${reply.error ?? "no answer from the server"}`);
    } else if (chat.room === room) {
      // The server has the subscription: from now on the room's messages reach this page.
      page.roomTitle.dataset.joined = room;
    }
  });
}

function send(event) {
  event.preventDefault();
  const text = page.message.value.trim();
  if (text === "" || chat.room === null) {
    return;
  }
  const room = chat.room;
  const data = { user: chat.user, text };
  // The server does not echo a message to its sender: show it once it is accepted.
  cometd.publish(`/chat/${room}`, data, (reply) => {
    if (chat.room !== room) {
      return;
    }
    if (reply.successful) {
      showChatMessage(data, true);
    } else {
      showNotice(`Not delivered: ${reply.error ?? "no answer from the server"}`);
    }
  });
  page.message.value = "";
}

function switchTransport() {
  const url = new URL(location.href);
  if (page.longPolling.checked) {
    url.searchParams.set("transport", "long-polling");
  } else {
    url.searchParams.delete("transport");
  }
  location.assign(url);
}

function showChatMessage(data, own) {
  const item = document.createElement("li");
  item.dataset.testid = "message";
  item.dataset.user = String(data?.user ?? "");
  item.classList.toggle("own", own);
  const user = document.createElement("span");
  user.className = "user";
  user.textContent = `${data?.user ?? "?"}:`;
  const text = document.createElement("span");
  text.className = "text";
  text.textContent = String(data?.text ?? "");
  item.append(user, text);
  appendToList(item);
}

function showNotice(text) {
  const item = document.createElement("li");
  item.dataset.testid = "notice";
  item.className = "notice";
  item.textContent = text;
  appendToList(item);
}

function appendToList(item) {
  page.messages.append(item);
  item.scrollIntoView({ block: "end" });
}

// The heartbeat's time is epoch milliseconds or an ISO text; anything else is shown as it came.
function showHeartbeat(message) {
  const time = message.data?.time;
  const date = new Date(time);
  page.heartbeat.dataset.time = String(time);
  page.heartbeat.textContent = time === undefined || Number.isNaN(date.getTime())
    ? String(time)
    : date.toLocaleTimeString();
}

function showStatus(state) {
  page.status.dataset.state = state;
  page.status.textContent = STATUS_TEXT[state];
}

function showJoinError(text) {
  page.joinError.textContent = text;
}

function setChatEnabled(enabled) {
  page.message.disabled = !enabled;
  page.send.disabled = !enabled;
  page.leave.disabled = !enabled;
}
