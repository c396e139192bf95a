#include "ui_page.h"

namespace tavrin::collector {

// Plain HTML, CSS and JavaScript: nothing to build, nothing fetched from elsewhere.
const char* const kDebugViewPage = R"PAGE(<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>Tavrin collector</title>
<style>
  :root { --bg:#f5f6f8; --card:#fff; --line:#dde1e6; --text:#1d2330; --muted:#667085; --accent:#2f6fde;
          --bad:#c23b30; --badbg:#fdecea; --ok:#21804a; --okbg:#e6f4ea; --warn:#9a6700; }
  * { box-sizing: border-box; }
  body { margin:0; font:14px/1.45 system-ui, -apple-system, "Segoe UI", Roboto, sans-serif; background:var(--bg); color:var(--text); }
  header { display:flex; align-items:center; gap:16px; padding:10px 18px; background:#1d2330; color:#fff; }
  header h1 { font-size:17px; margin:0; font-weight:600; }
  header .counts { color:#c9cfda; font-size:13px; }
  #live { margin-left:auto; font-size:12px; padding:2px 10px; border-radius:10px; background:#5b6472; }
  #live.on { background:var(--ok); }
  main { display:grid; grid-template-columns:minmax(280px, 30%) 1fr minmax(260px, 26%); gap:14px; padding:14px; height:calc(100vh - 46px); }
  @media (max-width: 1000px) { main { grid-template-columns:1fr; height:auto; } }
  .pane { overflow:auto; }
  .card { background:var(--card); border:1px solid var(--line); border-radius:8px; padding:12px 14px; margin-bottom:14px; }
  .card h2 { font-size:15px; margin:0 0 8px; }
  .card h3 { font-size:13px; margin:12px 0 6px; color:var(--muted); text-transform:uppercase; letter-spacing:.04em; }
  #requests { list-style:none; margin:0; padding:0; }
  .request { background:var(--card); border:1px solid var(--line); border-radius:8px; padding:8px 10px; margin-bottom:8px; cursor:pointer; }
  .request:hover { border-color:var(--accent); }
  .request.selected { border-color:var(--accent); box-shadow:0 0 0 2px rgba(47,111,222,.25); }
  .request.fresh { animation: fresh 2s ease-out; }
  @keyframes fresh { from { background:#fff6cc; } to { background:var(--card); } }
  .request .line { display:flex; gap:8px; align-items:center; }
  .request .time, .request .path { color:var(--muted); font-size:12px; }
  .request .status, .request .problem-count { margin-left:auto; font-size:12px; }
  .request .id { font-weight:600; }
  .badge { white-space:nowrap; }
  .request .problem { color:var(--bad); font-size:12px; margin-top:4px; overflow:hidden; text-overflow:ellipsis; white-space:nowrap; }
  .badge { display:inline-block; font-size:11px; font-weight:600; padding:1px 8px; border-radius:10px; background:#e8ecf3; color:#344054; }
  .kind-data { background:#e3edff; color:#1d4fb0; } .kind-consent { background:#f1e6ff; color:#6b2fb3; }
  .kind-offline-resend { background:#fff1d6; color:#8a5a00; } .kind-monitor { background:#e0f5ee; color:#176b4d; }
  .kind-invalid { background:var(--badbg); color:var(--bad); }
  .ok { background:var(--okbg); color:var(--ok); } .bad { background:var(--badbg); color:var(--bad); }
  table { border-collapse:collapse; width:100%; margin-bottom:4px; }
  th, td { text-align:left; padding:4px 8px; border-bottom:1px solid var(--line); vertical-align:top; word-break:break-word; }
  th { font-size:12px; color:var(--muted); font-weight:600; }
  td.key { font-family:ui-monospace, "DejaVu Sans Mono", monospace; font-size:13px; width:32%; }
  td.type { color:var(--muted); font-size:12px; width:12%; }
  tr.changed td { background:#fff6cc; }
  .changed-mark { color:var(--warn); font-weight:600; }
  ul.problems { margin:0; padding-left:18px; color:var(--bad); }
  ol.commands { margin:0; padding-left:22px; }
  pre { background:#f0f2f5; padding:8px; border-radius:6px; overflow:auto; font-size:12px; max-height:320px; }
  .empty { color:var(--muted); }
  .timeline { list-style:none; margin:0; padding:0 0 0 14px; border-left:2px solid var(--line); }
  .timeline .tag { position:relative; padding:3px 0 3px 10px; }
  .timeline .tag::before { content:""; position:absolute; left:-20px; top:9px; width:10px; height:10px; border-radius:50%; background:var(--accent); }
  .timeline .tag .when { color:var(--muted); font-size:12px; font-family:ui-monospace, monospace; margin-right:6px; }
  .tl-group h3 { text-transform:none; letter-spacing:0; color:var(--text); }
</style>
</head>
<body>
<header>
  <h1>Tavrin collector</h1>
  <span class="counts" id="counts">no requests yet</span>
  <span id="live">connecting…</span>
</header>
<main>
  <section class="pane" aria-label="requests"><ul id="requests"></ul>
    <p class="empty" id="no-requests">Waiting for the application: POST submissions to / and debug reports to /monitor.</p>
  </section>
  <section class="pane">
    <div class="card" id="detail"><p class="empty">Open a request on the left to see what it carried.</p></div>
  </section>
  <section class="pane">
    <div class="card"><h2>Tag timeline</h2><div id="timeline"><p class="empty">No debug tags yet.</p></div></div>
  </section>
</main>
<script>
"use strict";
const KIND_LABEL = { "data": "data submission", "consent": "consent submission", "offline-resend": "offline resend",
                     "monitor": "monitor report", "invalid": "invalid" };
const FIXED = ["document_location_href", "fb_browser_id", "tvrpushedcommands"];
const requests = new Map();   // id -> record
let selectedId = null;

function el(tag, attrs, ...children) {
  const node = document.createElement(tag);
  for (const [k, v] of Object.entries(attrs || {})) {
    if (k === "class") node.className = v; else if (k.startsWith("on")) node.addEventListener(k.slice(2), v);
    else node.setAttribute(k, v);
  }
  for (const c of children.flat()) if (c !== null && c !== undefined) node.append(c instanceof Node ? c : String(c));
  return node;
}
function clock(ms) {
  const d = new Date(Number(ms));
  return isNaN(d) ? String(ms) : d.toISOString().replace("T", " ").replace("Z", "");
}
function show(value) { return typeof value === "string" ? value : JSON.stringify(value); }
function typeOf(value) {
  if (Array.isArray(value)) return "array"; if (value === null) return "null";
  if (typeof value === "number") return Number.isInteger(value) ? "integer" : "number";
  return typeof value === "string" ? "text" : typeof value;
}
function obj(value) { return value && typeof value === "object" && !Array.isArray(value) ? value : {}; }
function kv(rows, cls) {
  const body = rows.map(([k, v, extra]) => el("tr", extra || {}, el("td", {class: "key"}, k), el("td", {}, show(v))));
  return rows.length ? el("table", {class: cls || ""}, el("tbody", {}, body)) : el("p", {class: "empty"}, "none");
}
function section(title, ...content) { return [el("h3", {}, title), ...content]; }

function renderList() {
  const list = document.getElementById("requests");
  const sorted = [...requests.values()].sort((a, b) => b.id - a.id);
  list.replaceChildren(...sorted.map(r => {
    const problems = r.problems || [];
    return el("li", {class: "request" + (r.id === selectedId ? " selected" : "") + (r.fresh ? " fresh" : ""),
                     "data-id": r.id, "data-kind": r.kind, onclick: () => select(r.id)},
      el("div", {class: "line"},
        el("span", {class: "badge kind-" + r.kind}, KIND_LABEL[r.kind] || r.kind),
        el("span", {class: "id"}, "#" + r.id),
        el("span", {class: "status badge " + (r.status < 300 ? "ok" : "bad")}, r.status)),
      el("div", {class: "line"},
        el("span", {class: "time", title: clock(r.time) + " UTC"}, clock(r.time).slice(11)),
        el("span", {class: "path"}, r.method + " " + r.path),
        problems.length ? el("span", {class: "badge bad problem-count"}, problems.length + (problems.length === 1 ? " problem" : " problems"))
                        : el("span", {class: "badge ok problem-count"}, "shape ok")),
      problems.length ? el("div", {class: "problem"}, problems[0]) : null);
  }));
  sorted.forEach(r => delete r.fresh);
  document.getElementById("no-requests").hidden = sorted.length > 0;
  const byKind = {};
  sorted.forEach(r => byKind[r.kind] = (byKind[r.kind] || 0) + 1);
  document.getElementById("counts").textContent = sorted.length ? sorted.length + " requests: " +
    Object.entries(byKind).map(([k, n]) => n + " " + (KIND_LABEL[k] || k) + (n === 1 ? "" : "s")).join(", ") : "no requests yet";
}

function previousConsent(r) {
  return [...requests.values()].filter(o => o.kind === "consent" && o.id < r.id).sort((a, b) => b.id - a.id)[0];
}

function dataDetail(r) {
  const doc = obj(r.body), data = obj(doc.data), ids = obj(data.identifier), vars = obj(data.variables);
  const sys = obj(doc.system), conf = obj(doc.configuration);
  const custom = Object.entries(vars).filter(([k]) => !FIXED.includes(k));
  const out = [];
  if (r.kind === "offline-resend")
    out.push(el("p", {}, "Resent from the offline cache; resend time " + clock(doc.app_offline_resend_timestamp) + "."));
  out.push(...section("Identifiers", el("table", {class: "identifiers"}, el("thead", {}, el("tr", {}, el("th", {}, ""), el("th", {}, "id"), el("th", {}, "action"))),
    el("tbody", {}, ["user", "session"].map(k => el("tr", {}, el("td", {class: "key"}, k), el("td", {}, show(obj(ids[k]).id)), el("td", {}, show(obj(ids[k]).action))))))));
  out.push(...section("Page", kv([["document_location_href", vars.document_location_href], ["fb_browser_id", vars.fb_browser_id]])));
  const commands = Array.isArray(vars.tvrpushedcommands) ? vars.tvrpushedcommands : [];
  out.push(...section("Pushed commands", commands.length ? el("ol", {class: "commands"}, commands.map(c => el("li", {}, show(c)))) : el("p", {class: "empty"}, "none")));
  out.push(...section("Variables (custom properties)", custom.length ?
    el("table", {class: "variables"}, el("thead", {}, el("tr", {}, el("th", {}, "name"), el("th", {}, "value"), el("th", {}, "type"))),
      el("tbody", {}, custom.map(([k, v]) => el("tr", {"data-name": k}, el("td", {class: "key"}, k), el("td", {}, show(v)), el("td", {class: "type"}, typeOf(v))))))
    : el("p", {class: "empty"}, "none")));
  out.push(...section("Consent", kv(Object.entries(obj(doc.consent)).map(([v, s]) => [v, obj(s).status]), "consent")));
  const enrichment = Object.entries(obj(data.enrichment));
  out.push(...section("Enrichment", enrichment.length ?
    el("table", {class: "enrichment"}, el("thead", {}, el("tr", {}, el("th", {}, "plug-in"), el("th", {}, "arguments"), el("th", {}, "variables"))),
      el("tbody", {}, enrichment.map(([p, e]) => el("tr", {}, el("td", {class: "key"}, p),
        el("td", {}, Object.entries(obj(obj(e).arguments)).map(([k, v]) => el("div", {}, k + " = " + show(v)))),
        el("td", {}, (obj(e).variables || []).join(", "))))))
    : el("p", {class: "empty"}, "none")));
  out.push(...section("System", kv(Object.entries(sys).map(([k, v]) => [k, k === "timestamp" ? v + "  (" + clock(v) + ")" : v]))));
  out.push(...section("Configuration", kv(Object.entries(conf))));
  return out;
}

function consentDetail(r) {
  const doc = obj(r.body), data = obj(doc.data), ids = obj(data.identifier), consent = obj(data.consent);
  const vendors = obj(consent.vendors), changed = obj(consent.vendorsChanged);
  const before = previousConsent(r), beforeVendors = before ? obj(obj(obj(before.body).data).consent).vendors || {} : {};
  const names = [...new Set([...Object.keys(vendors), ...Object.keys(changed)])];
  const changedNames = names.filter(v => v in changed);
  return [
    el("p", {class: "consent-summary"}, changedNames.length
      ? el("span", {class: "changed-mark"}, "Changed: " + changedNames.map(v => v + " → " + show(changed[v])).join(", "))
      : "No vendor changed in this decision."),
    ...section("Identifiers", kv([["user", show(obj(ids.user).id) + " (" + show(obj(ids.user).action) + ")"],
                                  ["consent", show(obj(ids.consent).id) + " (" + show(obj(ids.consent).action) + ")"]])),
    ...section("Vendors", el("table", {class: "vendors"},
      el("thead", {}, el("tr", {}, el("th", {}, "vendor"), el("th", {}, "decision"), el("th", {}, "before"), el("th", {}, "changed"))),
      el("tbody", {}, names.map(v => el("tr", {class: v in changed ? "changed" : "", "data-vendor": v},
        el("td", {class: "key"}, v), el("td", {}, show(v in vendors ? vendors[v] : changed[v])),
        el("td", {}, before ? (v in beforeVendors ? show(beforeVendors[v]) : "—") : "no earlier decision"),
        el("td", {}, v in changed ? el("span", {class: "changed-mark"}, "changed") : "")))))),
    ...section("Last update", el("p", {}, clock(consent.lastupdate))),
    ...section("Configuration", kv(Object.entries(obj(doc.configuration)))),
  ];
}

function tagList(tags) {
  return el("ol", {class: "timeline"}, tags.map(t => el("li", {class: "tag", "data-tag-id": show(t.id)},
    el("span", {class: "when", title: clock(t.timestamp) + " UTC"}, clock(t.timestamp).slice(11)), el("span", {class: "badge"}, show(t.id)), " ", show(t.name),
    el("span", {class: "time"}, "  " + [t.type, t.source].filter(Boolean).join(" · ")))));
}

function monitorDetail(r) {
  const doc = obj(r.body), tags = Array.isArray(doc.tags) ? doc.tags : [];
  return [...section("Debug code", el("p", {}, show(doc.debugid))), ...section(tags.length + " tags", tagList(tags))];
}

function select(id) {
  selectedId = id;
  const r = requests.get(id);
  const detail = document.getElementById("detail");
  const head = el("h2", {}, el("span", {class: "badge kind-" + r.kind}, KIND_LABEL[r.kind] || r.kind), " #" + r.id + " · " + clock(r.time) + " · " + r.method + " " + r.path + " → " + r.status);
  const problems = r.problems && r.problems.length ? section("Problems", el("ul", {class: "problems"}, r.problems.map(p => el("li", {}, p)))) : [];
  let body = [];
  if (r.bodyIsJson && (r.kind === "data" || r.kind === "offline-resend")) body = dataDetail(r);
  else if (r.bodyIsJson && r.kind === "consent") body = consentDetail(r);
  else if (r.bodyIsJson && r.kind === "monitor") body = monitorDetail(r);
  detail.replaceChildren(head, ...problems, ...body,
    ...section("Headers", kv(Object.entries(r.headers || {}))),
    ...section("Body (" + r.bodyBytes + " bytes)", el("pre", {class: "raw"}, r.bodyIsJson ? JSON.stringify(r.body, null, 2) : r.body)));
  detail.setAttribute("data-id", r.id);
  renderList();
}

function renderTimeline() {
  const groups = new Map();
  [...requests.values()].filter(r => r.kind === "monitor").sort((a, b) => a.id - b.id).forEach(r => {
    const doc = obj(r.body), code = typeof doc.debugid === "string" ? doc.debugid : "(no debug code)";
    if (!groups.has(code)) groups.set(code, []);
    (Array.isArray(doc.tags) ? doc.tags : []).forEach(t => groups.get(code).push(obj(t)));
  });
  const box = document.getElementById("timeline");
  if (!groups.size) { box.replaceChildren(el("p", {class: "empty"}, "No debug tags yet.")); return; }
  box.replaceChildren(...[...groups].map(([code, tags]) => el("div", {class: "tl-group", "data-debug": code},
    el("h3", {}, "debug code " + code + " · " + tags.length + " tags"), tagList(tags))));
}

function add(records, fresh) {
  for (const r of records) { if (!requests.has(r.id)) { r.fresh = fresh; requests.set(r.id, r); } }
  renderList(); renderTimeline();
}

// With a token (the collector's --token) the page is opened once as
// /ui/#token=T: the token moves to this tab's session storage, out of the
// address bar, and goes with every API call.
const given = new URLSearchParams(location.hash.slice(1)).get("token");
if (given) { sessionStorage.setItem("collectorToken", given); history.replaceState(null, "", location.pathname); }
const token = sessionStorage.getItem("collectorToken");
const live = document.getElementById("live");
const events = new EventSource("/api/events" + (token ? "?access_token=" + encodeURIComponent(token) : ""));
events.addEventListener("open", () => {
  live.textContent = "live"; live.className = "on";
  fetch("/api/requests?limit=1000", token ? {headers: {Authorization: "Bearer " + token}} : {})
    .then(r => r.json()).then(list => add(list, false));
});
events.addEventListener("error", () => {
  live.textContent = token ? "reconnecting…" : "reconnecting… (with --token, open /ui/#token=TOKEN)"; live.className = "";
});
events.addEventListener("request", e => add([JSON.parse(e.data)], true));
</script>
</body>
</html>
)PAGE";

}  // namespace tavrin::collector
