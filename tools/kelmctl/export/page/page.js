"use strict";
(() => {
  const main = document.getElementById("main");
  const stream = document.getElementById("stream");
  const value = document.getElementById("value");
  const policy = window.trustedTypes?.createPolicy("kelm", { createHTML: (html) => html });
  const parser = new DOMParser();
  // The service is looked at once a second.
  const SILENT_MS = 5000;
  const RETRY_MS = 3000;

  // Makes `old` equal to `fresh` and leaves what is equal alone: a selection, the focus, a scrolled
  // table and the place of a screen reader stay where they are.
  function update(old, fresh) {
    if (old.nodeName !== fresh.nodeName) {
      old.replaceWith(document.importNode(fresh, true));
      return;
    }
    if (old.nodeType === Node.TEXT_NODE) {
      if (old.data !== fresh.data) old.data = fresh.data;
      return;
    }
    for (const { name } of [...old.attributes]) {
      if (!fresh.hasAttribute(name)) old.removeAttribute(name);
    }
    for (const { name, value: text } of fresh.attributes) {
      if (old.getAttribute(name) !== text) old.setAttribute(name, text);
    }
    updateContent(old, fresh);
  }

  function updateContent(old, fresh) {
    const present = [...old.childNodes];
    const wanted = [...fresh.childNodes];
    wanted.forEach((node, i) => {
      if (i < present.length) update(present[i], node);
      else old.append(document.importNode(node, true));
    });
    present.slice(wanted.length).forEach((node) => node.remove());
  }

  // Words only when they change: they are read out.
  function tell(state, words) {
    if (stream.textContent === words) return;
    stream.textContent = words;
    document.body.className = state;
  }

  let source = null;
  let heard = 0;
  let lostAt = "";

  function show(event) {
    heard = performance.now();
    lostAt = "";
    const { title, body } = JSON.parse(event.data);
    const fresh = parser.parseFromString(policy ? policy.createHTML(body) : body, "text/html").body;
    updateContent(main, fresh);
    if (document.title !== title) document.title = title;
    tell("live", "Live");
  }

  function lose() {
    lostAt ||= new Date().toISOString().slice(11, 19);
    tell("lost", `Not live since ${lostAt} UTC. Trying again.`);
  }

  function open() {
    source?.close();
    heard = performance.now();
    source = new EventSource("events");
    source.onmessage = show;
    source.onerror = lose;
  }

  function close() {
    source?.close();
    source = null;
  }

  // The browser tries again by itself, but not after an answer such as "too many streams", nor
  // when the other end has fallen silent.
  setInterval(() => {
    if (!source) return;
    const silent = performance.now() - heard;
    if (silent > SILENT_MS) lose();
    if (silent > SILENT_MS + RETRY_MS || (source.readyState === EventSource.CLOSED && silent > RETRY_MS)) open();
  }, 1000);

  // Streams are few: a page that nobody sees gives its own back.
  document.addEventListener("visibilitychange", () => (document.hidden ? close() : open()));
  if (!document.hidden) open();

  // The value of a chart under the pointer.
  main.addEventListener("pointermove", (event) => {
    const plot = event.target.closest(".plot");
    value.hidden = !plot;
    if (!plot) return;
    const values = plot.dataset.values.split(",");
    const box = plot.querySelector("svg").getBoundingClientRect();
    const last = values.length - 1;
    const at = Math.min(last, Math.max(0, Math.round(((event.clientX - box.left) / box.width) * last)));
    const minutes = ((last - at) / 12).toFixed(1);
    const shown = values[at] === "" ? "not known" : values[at] + plot.dataset.unit;
    value.textContent = `${shown}, ${at === last ? "now" : `${minutes} min ago`}`;
    value.style.left = `${box.left + scrollX + (at / last) * box.width}px`;
    value.style.top = `${box.top + scrollY}px`;
    value.style.height = `${box.height}px`;
    value.className = at > last / 2 ? "left" : "";
  });
  main.addEventListener("pointerleave", () => (value.hidden = true));
})();
