
"use strict";
// File names and messages come from elsewhere. They only ever become text nodes.
const at = (id) => document.getElementById(id);
const element = (name, kind, ...contents) => {
    const made = document.createElement(name);
    if (kind) made.className = kind;
    made.append(...contents.filter((each) => each !== ""));
    return made;
};
const two = (number) => String(number).padStart(2, "0");
const clock = (seconds) => {
    const whole = Math.max(0, Math.floor(seconds));
    const rest = two(Math.floor(whole / 60) % 60) + ":" + two(whole % 60);
    return whole >= 3600 ? Math.floor(whole / 3600) + ":" + rest : rest.replace(/^0/, "");
};
const moment = (seconds) => {
    const date = new Date(seconds * 1000);
    return date.getFullYear() + "-" + two(date.getMonth() + 1) + "-" + two(date.getDate()) + " " +
        two(date.getHours()) + ":" + two(date.getMinutes()) + ":" + two(date.getSeconds());
};
const source = (each) => each.source + (each.sources > 1 ? " and " + (each.sources - 1) + " more" : "");
const client = (each) => each.client.name + " (" + each.client.pid + ")";
const title = (each) => element("div", "row",
    element("span", "", element("bdi", "name", source(each)), each.destination ? " → " : "",
        each.destination ? element("bdi", "", each.destination) : ""),
    element("span", "faint", each.operation));

// Keeps the elements of entries that are still there, so that bars move and a screen reader stays where it is.
const fill = (list, entries, key, make, update) => {
    const old = new Map([...list.children].map((child) => [child.dataset.key, child]));
    const wanted = entries.map((each) => {
        const child = old.get(String(key(each))) || make(each);
        child.dataset.key = key(each);
        if (update) update(child, each);
        return child;
    });
    for (const child of [...list.childNodes]) if (!wanted.includes(child)) child.remove();
    wanted.forEach((child, index) => {
        if (list.children[index] !== child) list.insertBefore(child, list.children[index] || null);
    });
};

const makeOperation = (each) => {
    const bar = document.createElement("progress");
    bar.max = 1;
    bar.setAttribute("aria-label", each.operation + " " + source(each));
    return element("li", "", title(each), bar,
        element("div", "row", element("span", "faint time"), element("bdi", "faint", client(each))));
};
const updateOperation = (child, each) => {
    child.querySelector("progress").value = each.fraction;
    child.querySelector(".time").textContent = Math.floor(each.fraction * 100) + " % · " + clock(each.elapsed) +
        " elapsed" + (each.remaining === null ? "" : " · " + clock(each.remaining) + " left");
};
const makeWaiting = (each) => element("li", "", title(each),
    element("div", "row", element("span", "faint time"), element("bdi", "faint", client(each))));
const updateWaiting = (child, each) => {
    child.querySelector(".time").textContent = "waiting for " + clock(each.waited);
};
const makeProcess = (each) => element("li", "", element("span", "faint", "Process " + each.pid), " ",
    each.state === "working" ? element("bdi", "", each.operation + " " + each.source) : element("span", "faint", each.state));
const makeError = (each) => element("li", "", element("div", "faint", moment(each.time)),
    element("bdi", "bad", each.sentence));

const show = (state) => {
    document.title = (state.running ? state.running + " running – " : "") + "Media server";
    at("server").textContent = state.name + " " + state.version + ", process " + state.pid + ", port " + state.port +
        ", up " + clock(state.uptime);
    at("running").textContent = state.running;
    at("waiting").textContent = state.queued;
    at("most").textContent = state.workers;
    at("applications").textContent = state.clients.length;
    fill(at("operations"), state.operations, (each) => each.number, makeOperation, updateOperation);
    fill(at("queue"), state.queue, (each) => each.number, makeWaiting, updateWaiting);
    at("more").textContent = state.more > 0 ? "and " + state.more + " more" : "";
    fill(at("processes"), state.processes, (each) => each.pid + each.state + (each.number || ""), makeProcess);
    fill(at("errors"), state.errors, (each) => each.number, makeError);
};

const kPause = 1000;
const refresh = async () => {
    let lost = false;
    if (!document.hidden) {
        try {
            const response = await fetch("/activity.json", {cache: "no-store", signal: AbortSignal.timeout(5 * kPause)});
            if (!response.ok) throw new Error(response.statusText);
            show(await response.json());
        } catch {
            lost = true;
        }
        document.body.classList.toggle("lost", lost);
        const notice = lost ? "The media server does not respond. This is the last known state." : "";
        if (at("notice").textContent !== notice) at("notice").textContent = notice;
    }
    setTimeout(refresh, lost ? 3 * kPause : kPause);
};
refresh();
