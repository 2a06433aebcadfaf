// The console of dovmad: hosts, rights, schedule and daemon in one page.
//
// Whatever the daemon says reaches the page as text nodes and attributes, never as markup. Name and password are kept
// in `session` and nowhere else. Each view draws what its sources read last; one that fails keeps its last good value.

// --- Elements ---

const $ = (id) => document.getElementById(id);

/** An element, "tag.class", with properties where the second argument is a plain object. Strings become text nodes;
 *  what is false or missing is left out. */
function el(what, ...rest) {
  const [tag, ...classes] = what.split(".");
  const properties = rest[0]?.constructor === Object ? rest.shift() : {};
  const node = Object.assign(document.createElement(tag), { className: classes.join(" ") }, properties);
  node.append(...rest.flat().filter((child) => child));
  return node;
}

function svg(tag, attributes, ...children) {
  const node = document.createElementNS("http://www.w3.org/2000/svg", tag);
  for (const [key, value] of Object.entries(attributes)) node.setAttribute(key, value);
  node.append(...children);
  return node;
}

const notice = (title, words) => el("div.notice", el("h2", title), el("p", words));

/** Terms and what they mean; without those that are not known. */
const factList = (facts) => el("dl", Object.entries(facts).filter(([, value]) => value !== undefined && value !== null)
  .flatMap(([term, value]) => [el("dt", term), el("dd", value instanceof Node ? value : String(value))]));

const count = (n) => n.toLocaleString("en").replaceAll(",", "\u2009");
const plural = (n, one, many = `${one}s`) => `${count(n)} ${n === 1 ? one : many}`;

// --- Time: the reader's zone in the page, the server's on hover ---

// `skew` is how far the server's clock is ahead, `offset` its zone, both in milliseconds.
const server = { name: location.hostname, skew: 0, offset: 0 };
const HOUR_MS = 3_600_000;
const DAY_MS = 24 * HOUR_MS;
const DAYS = "Sun Mon Tue Wed Thu Fri Sat".split(" ");
const MONTHS = "Jan Feb Mar Apr May Jun Jul Aug Sep Oct Nov Dec".split(" ");

/** "2026-11-22 03:34:49" of what a clock shows whose fields are those of UTC. */
const clockText = (milliseconds) => new Date(milliseconds).toISOString().slice(0, 19).replace("T", " ");

/** "03:34:49" today, "Mon 03:34" within a week, else "2026-11-22 03:34". */
function readersText(moment) {
  const local = (t) => clockText(t - new Date(t).getTimezoneOffset() * 60_000);
  const text = local(moment);
  if (text.slice(0, 10) === local(Date.now()).slice(0, 10)) return text.slice(11);
  const isNear = Math.abs(moment - Date.now()) < 6 * DAY_MS;
  return `${isNear ? DAYS[new Date(moment).getDay()] : text.slice(0, 10)} ${text.slice(11, 16)}`;
}

function serversText(moment) {
  const zone = `${server.offset < 0 ? "−" : "+"}${clockText(Math.abs(server.offset)).slice(11, 16)}`;
  return `on the server ${clockText(moment + server.skew + server.offset)} (UTC${zone})`;
}

const timeNode = (moment) => el("time", { title: serversText(moment) }, readersText(moment));

/** Milliseconds of a time as C's ctime() writes it, as if it were UTC; NaN when it is none. */
function parseClock(text) {
  const [, month, day, h, m, s, year] = /^\w{3} (\w{3}) +(\d+) (\d+):(\d+):(\d+) (\d+)$/.exec(text.trim()) ?? [];
  return Date.UTC(year, MONTHS.indexOf(month), day, h, m, s);
}

/** The moment, by the reader's clock, of what the server's clock showed; of the server's seconds since the epoch. */
const momentOf = (shown) => shown - server.offset - server.skew;
const momentOfSeconds = (seconds) => seconds * 1000 - server.skew;

/** Takes the server's zone from what its clock shows now. */
function setZone(shownNow) {
  const quarter = 900_000;
  const offset = Math.round((shownNow - Date.now() - server.skew) / quarter) * quarter;
  if (Math.abs(offset) <= 64 * quarter) server.offset = offset;
}

function duration(seconds) {
  const [size, unit] = seconds < 120 ? [1, "s"] : seconds < 7200 ? [60, "min"]
    : seconds < 172_800 ? [3600, "h"] : [86_400, "days"];
  return `${count(Math.round(seconds / size))} ${unit}`;
}

// --- Asking the daemon ---

/** Why there is no answer, in words for the reader. Kinds: unreachable, login, refused, absent, cut, form, status. */
const trouble = (kind, words) => Object.assign(new Error(words), { kind });

const session = { login: "", user: "", namespace: "plx" };
const SILENCE_MS = 20_000;

function troubleOf(reply, path, text, namespace) {
  const role = path.startsWith("/agent/") ? "agent" : "admin";
  if (reply.status === 401) {
    return trouble("login", "The daemon refused this name and password. After many refusals it is deaf for up to a minute.");
  }
  if (reply.status !== 403) {
    return trouble(reply.status === 404 ? "absent" : "status", `The daemon answered: ${text.slice(0, 200) || reply.status}`);
  }
  return trouble("refused", !text.startsWith("403 Forbidden") ? text : `${session.user} does not hold the role ${role} in ` +
    `the namespace ${namespace}. An administrator can grant it.`);
}

/** One request; the text of a good reply. `take` gets each piece of it, where it is given. */
async function ask(path, { method = "GET", form, namespace = session.namespace, anyStatus, take } = {}) {
  if (/[^ -~]/.test(namespace)) throw trouble("status", `No request can name the namespace ${namespace}.`);
  const headers = { Authorization: session.login, ...(namespace !== "plx" && { "X-PLX-Namespace": namespace }) };
  const stop = new AbortController();
  let [timer, reply, text] = [0, null, ""];
  const watch = () => { clearTimeout(timer); timer = setTimeout(() => stop.abort(), SILENCE_MS); };
  try {
    watch();
    reply = await fetch(path, { method, headers, body: form && new URLSearchParams(form), credentials: "omit",
      cache: "no-store", redirect: "error", signal: stop.signal });
    const reader = reply.body.pipeThrough(new TextDecoderStream()).getReader();
    for (let piece = await reader.read(); !piece.done; piece = await reader.read()) {
      watch();
      if (take && reply.ok) take(piece.value);
      else text += piece.value;
    }
  } catch (error) {
    if (error.kind) throw error;
    if (reply) throw trouble("cut", "The answer broke off before its end.");
    throw trouble("unreachable", stop.signal.aborted ? `${server.name} is silent for ${SILENCE_MS / 1000} seconds.`
      : `${server.name} does not answer: the daemon has stopped, shows another certificate, or the network is down.`);
  } finally {
    clearTimeout(timer);
    stop.abort();
  }
  if (reply.status === 401 || (!reply.ok && !anyStatus)) throw troubleOf(reply, path, text, namespace);
  return text;
}

function parseJson(text) {
  try {
    return JSON.parse(text);
  } catch {
    throw trouble("cut", "The answer is no whole JSON: it broke off, or is of another version.");
  }
}

/** What console.cgi tells about something, where an administrator has installed it. */
async function askProgram(show) {
  const text = await ask(`/admin/console.cgi?show=${show}`).catch((error) => {
    throw error.kind !== "absent" ? error : trouble("absent", "No endpoint tells this. The program console.cgi does, " +
      "once an administrator has installed it: dovmad-console(7).");
  });
  if (text.startsWith("#!")) throw trouble("absent", "console.cgi comes as text: cgi_extensions must name .cgi.");
  const value = parseJson(text);
  if (value?.error) throw trouble("status", `console.cgi says: ${value.error}`);
  if (value?.version !== 1) throw trouble("form", "console.cgi is of another version than this page.");
  return value;
}

/** Something that is read again and again, by itself at most every `leastSeconds`. */
class Source {
  constructor(read, leastSeconds = 0) {
    Object.assign(this, { read, leastSeconds, value: null, at: 0, triedAt: 0, trouble: null, busy: false, progress: 0 });
  }

  async refresh() {
    if (this.busy) return;
    Object.assign(this, { busy: true, triedAt: Date.now() });
    try {
      Object.assign(this, { value: await this.read(this), at: Date.now(), trouble: null });
    } catch (error) {
      if (!error.kind) console.error(error);
      this.trouble = error.kind ? error : trouble("form", "The answer has a form that this page does not know.");
    }
    Object.assign(this, { busy: false, progress: 0 });
  }

  /** Whether it should be read. A refusal would only be refused, and logged, again. */
  isDue(byHand, seconds) {
    if (this.busy || byHand || this.triedAt === 0) return !this.busy;
    return !["login", "refused", "absent"].includes(this.trouble?.kind) &&
      Date.now() - this.triedAt >= 1000 * Math.max(seconds, this.leastSeconds);
  }
}

const vitals = new Source(async () => {
  const before = Date.now();
  const value = parseJson(await ask("/world/getvitals"));
  const ahead = Number(value.LOCAL_TIME) * 1000 + 500 - (before + Date.now()) / 2;
  server.skew = Math.abs(ahead) >= 2000 ? ahead : 0;
  // Dates of files show the server's local time, whatever their zone says.
  const mark = await fetch("mark.svg", { credentials: "omit", cache: "no-store" });
  setZone(Date.parse(mark.headers.get("Date")));
  if (value.LOCAL_NAME && value.LOCAL_NAME !== "UNKNOWN") server.name = value.LOCAL_NAME;
  $("where").textContent = server.name;
  return value;
}, 60);

// --- Dialogs and messages ---

/** Asks in a dialog; the fields' values by name, or null. `typed` must be typed to go on. */
function dialog({ title, words, verb, danger = false, fields = [], typed }) {
  const typedField = { name: "typed", label: `Type “${typed}” to go on`, pattern: typed, required: true, autocomplete: "off" };
  const inputs = typed ? [typedField] : fields;
  const box = $("dialog");
  [$("dialog-title").textContent, $("dialog-words").textContent] = [title, words];
  $("dialog-fields").replaceChildren(...inputs.map(({ label, choices, hint, ...properties }) => el("label", label,
    choices ? el("select", properties, choices.map((choice) => el("option", choice))) : el("input", properties),
    hint && el("small.muted", hint))));
  Object.assign($("dialog-yes"), { textContent: verb, className: danger ? "danger" : "primary" });
  Object.assign(box, { returnValue: "" }).showModal();
  (box.querySelector("input, select") ?? $(danger ? "dialog-no" : "dialog-yes")).focus();
  return new Promise((resolve) => box.addEventListener("close", () => resolve(box.returnValue !== "yes" ? null
    : Object.fromEntries(new FormData(box.querySelector("form")))), { once: true }));
}

function say(words, isBad = false) {
  Object.assign($("said"), { textContent: words, className: isBad ? "shown bad" : "shown" });
  clearTimeout(say.timer);
  say.timer = setTimeout(() => { $("said").className = ""; }, isBad ? 15_000 : 6000);
}

/** Sends a request and tells how it went; whether it went well. */
async function send(done, path, options) {
  const error = await ask(path, options).then(() => null, (reason) => reason);
  say(error ? `Not done. ${error.message}` : done, error !== null);
  return error === null;
}

const act = async (question, done, path, options) =>
  await dialog(question) !== null && send(done, path, { method: "POST", form: {}, ...options });

// --- Hosts: what is known ---

// Overdue stands first: it is what has just changed.
const [OVERDUE, DOWN, UP] = [0, 1, 2];
const STATES = ["overdue", "down", "up"];
const NEVER = 2 ** 31 - 1;
const flat = (text) => text.toLowerCase().replace(/\s/g, "_");

/** The domain at one moment: a record for each host, and columns of numbers beside them. Records of hosts that have not
 *  changed are shared with the moment before. */
class Snapshot {
  constructor(former) {
    Object.assign(this, { hosts: [], missing: new Set(), texts: new Map(), ranks: {} });
    this.former = new Map(former?.hosts.map((host) => [host.id, host]));
    this.columns = { age: [], due: [], down: [] };
  }

  add(raw) {
    const text = (key) => {
      if (raw[key] === undefined) this.missing.add(key);
      return String(raw[key] ?? "");
    };
    const shared = (value) => this.texts.get(value) ?? (this.texts.set(value, value), value);
    const [id, name, reverse] = [text("hostid"), text("hostname"), text("revhostname")];
    const host = { id, name, reverse: reverse === name ? name : reverse, cpu: shared(text("cputype")),
      spaces: shared([raw.namespaces ?? []].flat().map(String).join(" ")), os: shared(text("osname")),
      release: shared(text("osrelease")) };
    const old = this.former.get(id);
    const isOld = old && Object.keys(host).every((key) => host[key] === old[key]);
    if (!isOld) host.words = `${id} ${name} ${reverse} ${host.spaces} ${host.os} ${host.release} ${host.cpu}`.toLowerCase();
    this.hosts.push(isOld ? old : host);
    this.columns.age.push(parseInt(text("pingtime"), 10) || 0);
    this.columns.due.push(parseInt(text("nexttime"), 10) || 0);
    this.columns.down.push(text("status") === "UP" ? 0 : 1);
  }

  /** The usual time between reports is that of the hosts that are on time; after three times that, a host is down. */
  finish() {
    this.former = this.texts = null;
    for (const key of Object.keys(this.columns)) this.columns[key] = Int32Array.from(this.columns[key]);
    const { age, due, down } = this.columns;
    const usual = age.map((seconds, i) => (down[i] ? 0 : seconds + due[i])).filter((n) => n > 0).sort();
    this.patience = 3 * (usual[usual.length >> 1] ?? 360);
    this.columns.state = down.map((isDown, i) => (!isDown ? UP : age[i] > 0 && age[i] <= this.patience ? OVERDUE : DOWN));
    this.at = Date.now();
    return this;
  }

  /** The place of each host in the order of a column; numbers within names count as numbers. */
  rank(column) {
    const { age, due, down, state } = this.columns;
    if (column === "state") return state;
    if (column === "age") return age.map((seconds, i) => (seconds || !down[i] ? seconds : NEVER));
    if (column === "due") return due.map((seconds, i) => (down[i] ? NEVER : seconds));
    if (this.ranks[column]) return this.ranks[column];
    const textOf = column === "system" ? (host) => `${host.os} ${host.release}` : (host) => host[column];
    const keys = this.hosts.map((host) => textOf(host).toLowerCase().replace(/\d+/g, (n) => n.padStart(8, "0")));
    const order = Uint32Array.from(keys, (_, i) => i).sort((a, b) => (keys[a] < keys[b] ? -1 : keys[a] > keys[b] ? 1 : 0));
    const rank = this.ranks[column] = new Uint32Array(order.length);
    order.forEach((host, i) => { rank[host] = i && keys[host] === keys[order[i - 1]] ? rank[order[i - 1]] : i; });
    return rank;
  }

  order(column, falling) {
    const [rank, names] = [this.rank(column), this.rank("name")];
    return Uint32Array.from(names, (_, i) => i)
      .sort((a, b) => (falling ? rank[b] - rank[a] : rank[a] - rank[b]) || names[a] - names[b] || a - b);
  }

  /** A test for what was typed: words over all columns, and is:down, ns:plx, os:linux. */
  matcher(typed) {
    const { state } = this.columns;
    const tests = typed.toLowerCase().split(/\s+/).filter(Boolean).map((word) => {
      const [, kind, value] = /^(is|ns|os):(.+)$/.exec(word) ?? [];
      if (kind === "is") return (_, i) => STATES[state[i]].startsWith(value);
      if (kind === "ns") return (host) => host.spaces.toLowerCase().split(" ").includes(value);
      if (kind === "os") return (host) => flat(host.os) === value;
      return (host, i) => host.words.includes(word) || STATES[state[i]] === word;
    });
    return (i) => tests.every((test) => test(this.hosts[i], i));
  }

  /** Counts by state for each value of a column, the largest first. */
  tally(valuesOf) {
    const rows = new Map();
    this.hosts.forEach((host, i) => {
      for (const value of valuesOf(host)) {
        if (!rows.has(value)) rows.set(value, [0, 0, 0]);
        rows.get(value)[this.columns.state[i]] += 1;
      }
    });
    const total = ([, counts]) => counts[0] + counts[1] + counts[2];
    return [...rows].sort((a, b) => total(b) - total(a));
  }
}

// The listing is parsed while it arrives; this text stands between hosts, and within none.
const BETWEEN = "},\n{";
const PIECE = 1 << 18;

const hosts = new Source(async (source) => {
  if (vitals.value?.DOMAIN_MODE === "FALSE") {
    throw trouble("absent", "This daemon is not the server of a domain: it has no domain_file. What it collects for " +
      "other servers is forgotten by being read, so this page does not ask.");
  }
  const snapshot = new Snapshot(source.value);
  let [rest, hasBegun] = ["", false];
  const add = (text) => {
    for (const host of parseJson(`[${text}]`)) snapshot.add(Object(host));
    source.progress = snapshot.hosts.length;
  };
  const take = (piece) => {
    rest += piece;
    if (!hasBegun && rest.trim()) {
      if (!/^\s*\[/.test(rest)) throw trouble("form", "The answer is no list of hosts.");
      rest = rest.replace(/^\s*\[/, "");
      hasBegun = true;
    }
    const end = rest.length < PIECE ? -1 : rest.lastIndexOf(BETWEEN);
    if (end < 0) return;
    add(rest.slice(0, end + 1));
    rest = rest.slice(end + 2);
  };
  try {
    await ask("/agent/domain/enum?scope=all&format=json", { take });
    if (!/\]\s*$/.test(rest)) throw trouble("cut");
    add(rest.replace(/\]\s*$/, ""));
  } catch (error) {
    if (error.kind !== "cut") throw error;
    throw trouble("cut", `The list broke off after ${plural(snapshot.hosts.length, "host")}.`);
  }
  return snapshot.finish();
});

// --- Hosts: the table ---

const COLUMNS = [["state", "Status"], ["name", "Host"], ["reverse", "Reverse name"], ["id", "Id"],
  ["spaces", "Namespaces"], ["system", "System"], ["cpu", "Processor"], ["age", "Last report"], ["due", "Next due"]];
// `shown` holds hosts of `snapshot` by number, in the order of the rows; `pool` the rows that exist.
const table = { sort: "state", falling: false, snapshot: null, shown: new Uint32Array(), chosen: null, pool: [],
  first: -1, rowHeight: 36 };

const stateMark = (state) => el(`span.mark.${STATES[state]}`, STATES[state]);
const hostAt = (place) => table.snapshot.hosts[table.shown[place]];
const placeOf = (id) => (id === null ? -1 : table.shown.findIndex((i) => table.snapshot.hosts[i].id === id));

function makeRow() {
  const texts = COLUMNS.map(() => document.createTextNode(""));
  const cells = COLUMNS.map(([key], i) => el(`span.cell.${key}`, { role: "gridcell" }, texts[i]));
  const node = el("div.row", { role: "row", id: `row-${table.pool.length}` }, cells);
  $("rows").append(node);
  table.pool.push({ node, texts, report: cells[7], place: -1 });
}

function fillRow(row, place) {
  const [snapshot, i] = [table.snapshot, table.shown[place]];
  const [host, { age, due, down, state }] = [snapshot.hosts[i], snapshot.columns];
  const isSilent = age[i] === 0 && down[i] === 1;
  row.place = place;
  row.node.className = `row ${STATES[state[i]]}`;
  row.node.style.transform = `translateY(${place * table.rowHeight}px)`;
  Object.assign(row.node, { ariaRowIndex: place + 2, ariaSelected: host.id === table.chosen });
  row.report.title = isSilent ? "" : serversText(snapshot.at - age[i] * 1000);
  [STATES[state[i]], host.name, host.reverse, host.id, host.spaces, `${host.os} ${host.release}`, host.cpu,
    isSilent ? "none yet" : `${duration(age[i])} ago`, down[i] ? "—" : `in ${duration(due[i])}`]
    .forEach((text, column) => { if (row.texts[column].data !== text) row.texts[column].data = text; });
}

/** Fills the rows that can be seen, and some around them. A row keeps its place as long as that is among them. */
function drawRows(all = false) {
  const box = $("table");
  const wanted = Math.ceil(box.clientHeight / table.rowHeight) + 12;
  const first = Math.max(0, Math.min(Math.floor(box.scrollTop / table.rowHeight) - 6, table.shown.length - wanted));
  if (!all && first === table.first) return;
  table.first = first;
  while (table.pool.length < wanted) makeRow();
  const size = table.pool.length;
  table.pool.forEach((row, slot) => {
    const place = first + ((((slot - first) % size) + size) % size);
    row.node.hidden = place >= table.shown.length;
    if (row.node.hidden) row.place = -1;
    else if (all || row.place !== place) fillRow(row, place);
  });
}

/** Sorts and filters. What the reader looks at stays where it is, as far as the list lets it. */
function drawTable(keepsPlace = false) {
  const box = $("table");
  const seen = !keepsPlace || box.scrollTop === 0 ? []
    : table.pool.filter((row) => row.place >= 0).map((row) => [row.texts[3].data, row.place]);
  const snapshot = table.snapshot = hosts.value;
  if (snapshot) {
    const order = `${table.sort} ${table.falling}`;
    if (snapshot.sortedBy !== order) snapshot.sorted = snapshot.order(table.sort, table.falling);
    snapshot.sortedBy = order;
    table.shown = snapshot.sorted.filter(snapshot.matcher($("search").value));
  }
  $("rows").style.height = `${table.shown.length * table.rowHeight}px`;
  box.ariaRowCount = table.shown.length + 1;
  if (!keepsPlace) box.scrollTop = 0;
  if (seen.length > 0) {
    const places = new Map(Array.from(table.shown, (i, place) => [snapshot.hosts[i].id, place]));
    const moved = seen.filter(([id]) => places.has(id)).map(([id, place]) => places.get(id) - place).sort((a, b) => a - b);
    box.scrollTop += (moved[moved.length >> 1] ?? 0) * table.rowHeight;
  }
  const total = snapshot?.hosts.length ?? 0;
  $("found").textContent = !snapshot ? "" : table.shown.length === total ? plural(total, "host")
    : `${count(table.shown.length)} of ${plural(total, "host")}`;
  drawRows(true);
  drawBlank(total);
  drawDetails();
}

function drawBlank(total) {
  const words = !table.snapshot && hosts.trouble ? ["No list of hosts", hosts.trouble.message]
    : !table.snapshot ? ["Loading", "The list is on its way."]
      : total === 0 ? ["No host yet", "Hosts enrol with POST /agent/domain/register; dovmad-domain(7) shows how."]
        : ["No host matches", `No host has “${$("search").value}”.`];
  $("blank").hidden = table.shown.length > 0;
  $("blank").replaceChildren(...notice(...words).childNodes);
}

function choose(id) {
  table.chosen = id;
  const box = $("table");
  const place = placeOf(id);
  const top = place * table.rowHeight;
  const room = box.clientHeight - $("head").offsetHeight - table.rowHeight;
  if (place >= 0) box.scrollTop = Math.max(Math.min(box.scrollTop, top), top - room);
  drawRows(true);
  const row = table.pool.find((one) => place >= 0 && one.place === place);
  box.setAttribute("aria-activedescendant", row?.node.id ?? "");
  drawDetails();
}

function tableKey(event) {
  const page = Math.max(1, Math.floor($("table").clientHeight / table.rowHeight) - 2);
  const steps = { ArrowDown: 1, ArrowUp: -1, PageDown: page, PageUp: -page, Home: -Infinity, End: Infinity };
  if (event.key === "Escape") choose(null);
  if (!(event.key in steps) || table.shown.length === 0) return;
  event.preventDefault();
  const place = placeOf(table.chosen) + steps[event.key];
  choose(hostAt(Math.max(0, Math.min(table.shown.length - 1, place))).id);
}

function drawDetails() {
  const { snapshot, chosen } = table;
  $("details").hidden = chosen === null;
  if (chosen === null || !snapshot) return null;
  const close = el("button.quiet", { ariaLabel: "Close", onclick: () => { choose(null); $("table").focus(); } }, "✕");
  const i = snapshot.hosts.findIndex((host) => host.id === chosen);
  const show = (title, ...rest) => $("details").replaceChildren(el("div.title", el("h2", title), close), ...rest);
  if (i < 0) return show(chosen, el("p", "This host has left the domain."));
  const [age, due, state] = ["age", "due", "state"].map((key) => snapshot.columns[key][i]);
  const [host, isSilent] = [snapshot.hosts[i], age === 0 && state === DOWN];
  const words = state === UP ? `On time: the next report is due in ${duration(due)}.`
    : isSilent ? "No report since the daemon started, or since this host enrolled."
      : state === DOWN ? "Its reports have been missing for long."
        : `Its report is late. After three times the usual interval (${duration(snapshot.patience)}) it counts as down.`;
  const last = isSilent ? "none yet" : el("span", timeNode(snapshot.at - age * 1000), `, ${duration(age)} before this list`);
  return show(host.name, el("p", stateMark(state)), el("p.muted", words), factList({ "Last report": last,
    "Reverse name": host.reverse || "none", Id: el("code", host.id), Namespaces: host.spaces || "none",
    System: host.os, Release: host.release, Processor: host.cpu }));
}

function drawBars(box, rows, kind) {
  const states = [UP, OVERDUE, DOWN];
  const most = Math.max(1, ...rows.map(([, counts]) => counts[0] + counts[1] + counts[2]));
  box.replaceChildren(...rows.slice(0, 4).map(([value, counts]) => {
    const words = states.filter((s) => counts[s]).map((s) => `${count(counts[s])} ${STATES[s]}`).join(" · ");
    const widths = states.map((s) => counts[s] && Math.max(0.6, (100 * counts[s]) / most));
    const parts = states.map((s, i) => svg("rect", { x: widths.slice(0, i).reduce((a, b) => a + b, 0), width: widths[i],
      height: 10, class: STATES[s] }));
    return el("button.bar", { title: words, onclick: () => searchFor(`${kind}:${flat(value)}`) },
      el("span.label", value || "none"), svg("svg", { viewBox: "0 0 100 10", preserveAspectRatio: "none",
        "aria-hidden": "true" }, ...parts), el("span.number", words));
  }));
  box.previousElementSibling.lastChild.textContent = rows.length > 4 ? `the largest of ${count(rows.length)}` : "";
}

function drawHosts() {
  const [snapshot, counts] = [hosts.value, [0, 0, 0]];
  for (const state of snapshot?.columns.state ?? []) counts[state] += 1;
  $("tiles").replaceChildren(...[UP, OVERDUE, DOWN].map((state) => el("button.tile",
    { onclick: () => searchFor(`is:${STATES[state]}`) }, stateMark(state), el("b", snapshot ? count(counts[state]) : "–"))));
  if (snapshot) drawBars($("by-namespace"), snapshot.tally((host) => host.spaces.split(" ")), "ns");
  if (snapshot) drawBars($("by-system"), snapshot.tally((host) => [host.os]), "os");
  drawTable(true);
}

/** Adds a word like is:down to the search in place of others of its kind; takes it away when it is there. */
function searchFor(token) {
  const words = $("search").value.split(/\s+/).filter(Boolean);
  const others = words.filter((word) => word.split(":")[0] !== token.split(":")[0]);
  $("search").value = words.includes(token) ? others.join(" ") : [...others, token].join(" ");
  drawTable();
}

async function changeCollectors() {
  const number = (name, label, hint) => ({ name, label, hint, type: "number", min: 0, max: 2_147_483_647 });
  const isServer = vitals.value?.DOMAIN_MODE !== "FALSE";
  const served = Object.keys(vitals.value?.DOMAINS ?? {});
  const fields = [number("enable", isServer ? "Accept collectors, 0 or 1" : "Collect, 0 or 1", "0 at the start"),
    number("freq", "Least seconds between reports", "300 at the start"),
    number("max_report_per_dhc", "Hosts of one collector", "30 at the start")];
  if (!isServer) fields.unshift({ name: "domain", label: "Domain", required: true, ...(served.length && { choices: served }) });
  fields.push(...(isServer ? [number("fudge", "Seconds of grace", "60 at the start"),
    number("max_report_per_dc", "Direct reporters listed", "256 at the start")]
    : [number("max_cycles_per_blist", "Enumerations that a blacklist lasts", "2 at the start"),
      { name: "blacklist", label: "Ids to blacklist, separated by :" }]));
  const values = await dialog({ title: "Collector settings", verb: "Apply", fields, words: "The daemon tells nobody " +
    "what is set or blacklisted. Empty fields leave things as they are, and a restart forgets all of it." });
  const given = Object.entries(values ?? {}).filter(([, value]) => value !== "")
    .map(([key, value]) => `${key}=${encodeURIComponent(key === "blacklist" ? `${value}:` : value)}`).join("&");
  if (given) await send("Done: collector settings.", `/admin/domain/${isServer ? "dhc" : "add"}?${given}`);
}

// --- Rights ---

const rights = new Source(() => askProgram("rights").catch(async (error) => {
  const group = error.kind === "absent" && await ask("/admin/security/get_admin_group").catch(() => "");
  throw group ? trouble("absent", `${error.message} Root and the group ${group.trim()} are administrators.`) : error;
}), 60);
const ROLES = { admin: "everything else", operator: "/operator/ and /pub/", pub: "/pub/", agent: "/agent/" };

async function changeRight(verb, user, role, type, namespace) {
  const grants = verb === "grant";
  const sentence = grants ? `Grant the role ${role} in the namespace ${namespace} to the ${type} “${user}”`
    : `Take the role ${role} in the namespace ${namespace} away from the ${type} “${user}”`;
  const more = /^root/i.test(user) ? " Names that begin with root are built in: nothing will change."
    : !grants ? " Connections that are open keep it until they end."
      : role === "admin" ? " Administrators may do everything, in every namespace." : "";
  if (!await act({ title: grants ? "Grant a role?" : "Take a role away?", danger: !grants, words: `${sentence}?${more}`,
    verb: grants ? `Grant ${role}` : `Take ${role} away` }, `Done: ${sentence}.`, `/admin/security/${verb}`,
  { form: { user, role, type }, namespace })) return;
  $("changes").hidden = false;
  $("changes").querySelector("ol").prepend(el("li", timeNode(Date.now()), ` ${sentence}.`));
  if (rights.value) await rights.refresh();
  draw();
}

function drawRights() {
  const namespaces = rights.value?.namespaces ?? [];
  const isAbsent = rights.trouble?.kind === "absent";
  $("namespaces").replaceChildren(...namespaces.map(({ namespace }) => el("option", { value: namespace })));
  $("holders").replaceChildren(...(rights.value ? namespaces.map(namespaceCard)
    : !rights.trouble ? [notice("Loading", "Who holds what is being read.")]
      : [notice(isAbsent ? "Who holds what is not told" : "No list of rights", rights.trouble.message +
        (isAbsent ? " Roles can be granted and taken away all the same." : ""))]));
}

function namespaceCard({ namespace, root, roles }) {
  const fixed = (kind, name) => el("li.chip.fixed", { title: "built in" }, el("span.kind", kind), name);
  const chip = (role, type) => (name) => el("li.chip", el("span.kind", type), el("span", name),
    el("button.quiet", { ariaLabel: `Take ${role} away from ${name}`, title: "Take away…",
      onclick: () => changeRight("deny", name, role, type, namespace) }, "✕"));
  const holders = ({ role, everybody, built_in: builtIn, users, groups }) => [
    everybody && fixed("every", "user who has logged in"), ...builtIn.users.map((name) => fixed("user", name)),
    ...builtIn.groups.map((name) => fixed("group", name)), ...users.map(chip(role, "user")),
    ...groups.map(chip(role, "group"))].filter(Boolean);
  const rows = Object.keys(ROLES).map((name) => roles.find(({ role }) => role === name)).filter(Boolean);
  return el("section.card", el("div.title", el("h2", String(namespace)), el("code.muted", String(root))),
    el("dl.roles", rows.flatMap((row) => [el("dt", row.role, el("small.muted", ROLES[row.role])),
      el("dd", !row.readable ? el("p.trouble", `${row.file} cannot be read.`)
        : holders(row).length ? el("ul", holders(row)) : el("span.muted", "nobody"))])));
}

// --- Schedule ---

const DUMP_WORDS = { "not scheduled in this hour": "", "waiting...": "", "runs in this minute.": "due now",
  "not runnable because paused": "paused", "clock is advanced beyond the scheduled time": "clock was put on" };

const dump = new Source(async () => {
  const text = await ask("/admin/sched/dump");
  const now = parseClock(/^now= *(.*)$/m.exec(text)?.[1] ?? "");
  if (Number.isNaN(now)) throw trouble("form", "The answer is no dump of the schedule.");
  if (!text.endsWith("\n\n")) throw trouble("cut", "The dump broke off before its end.");
  setZone(now);
  const moment = (clock) => (parseClock(clock) > 2 * DAY_MS ? momentOf(parseClock(clock)) : null);
  const entry = /^(.*?) +interval=(\d+) sortkey=.* p=\d k=(\d)\n\tprev=(.*)\n\tnext=(.*)\n\t(.*)/;
  return { now: momentOf(now), entries: text.split(/^id=/m).slice(1).map((part) => {
    const [, id, interval, kickoff, prev, next, state] = entry.exec(part) ?? [];
    if (id === undefined) throw trouble("form", "The dump has a form that this page does not know.");
    return { id, interval: Number(interval), isKickoff: kickoff === "1", last: moment(prev), next: moment(next),
      state: DUMP_WORDS[state] ?? state };
  }) };
});
const upcoming = new Source(() => askProgram("next"), 300);

/** The runs of an entry in the day from `now` on, and the next one, however far. */
function runsOf(entry, now) {
  const runs = entry.interval ? [] : (upcoming.value?.runs?.[entry.id] ?? []).map(momentOfSeconds).filter((t) => t > now);
  for (let t = entry.interval && entry.next ? entry.next : NaN; t < now + DAY_MS; t += entry.interval * 60_000) runs.push(t);
  if (entry.next && runs[0] !== entry.next) runs.unshift(entry.next);
  return runs;
}

function drawSchedule() {
  const { now, entries } = dump.value ?? { entries: [] };
  if (entries.length === 0) {
    return $("entries").replaceChildren(!dump.value ? notice(dump.trouble ? "No schedule" : "Loading",
      dump.trouble?.message ?? "The schedule is on its way.")
      : notice("The schedule is empty", "No scheduler_file is configured, or none of its lines was loaded; the error log " +
        "says which and why."));
  }
  const ticks = Array.from({ length: 24 }, (_, i) => (Math.ceil(now / HOUR_MS) + i) * HOUR_MS)
    .filter((t) => new Date(t).getHours() % 3 === 0);
  const minute = (t) => ((t - now) / 60_000).toFixed(1);
  const axis = el("div.lane.axis", ticks.map((t) => el("span", { title: serversText(t) },
    `${String(new Date(t).getHours()).padStart(2, "0")}:00`)));
  [...axis.children].forEach((label, i) => { label.style.left = `${minute(ticks[i]) / 14.4}%`; });
  const hours = ticks.map((t) => `M${minute(t)} 0v24`).join("");
  const rows = entries.map((entry) => {
    const runs = runsOf(entry, now);
    const today = runs.filter((t) => t <= now + DAY_MS);
    const lane = svg("svg", { viewBox: "0 0 1440 24", preserveAspectRatio: "none", role: "img",
      "aria-label": `${plural(today.length, "run")} in 24 hours` }, svg("path", { class: "hours", d: hours }),
    svg("path", { class: today.length > 300 ? "runs dense" : "runs", d: today.map((t) => `M${minute(t)} 4v16`).join("") }));
    const next = runs.length ? timeNode(runs[0]) : !upcoming.value ? (upcoming.trouble ? "unknown" : "…")
      : entry.isKickoff ? "at start" : "not planned";
    return el("div.entry", el("div.id", el("b", entry.id), entry.isKickoff && el("span.tag", "at start"),
      entry.interval > 0 && el("span.tag", `every ${entry.interval} min`), entry.state && el("span.tag.strong", entry.state)),
    el("div.when", el("small", "last "), entry.last ? timeNode(entry.last) : "none yet"),
    el("div.when", el("small", "next "), next), el("div.lane", lane),
    el("button.quiet", { onclick: () => rescan(entry.id) }, "Read again…"));
  });
  return $("entries").replaceChildren(el("section.card.timeline", el("div.entry.head", el("span",
    plural(entries.length, "entry", "entries")), el("span", "Last run"), el("span", "Next run"), axis), rows),
  upcoming.trouble ? el("p.muted", `Beyond this hour only intervals are known. ${upcoming.trouble.message}`) : "");
}

async function rescan(id) {
  const what = id === undefined ? "the whole schedule file" : `the entry “${id}”`;
  const path = `/admin/sched/rescan${id === undefined ? "" : `?id=${encodeURIComponent(id)}`}`;
  if (await act({ title: "Read again?", verb: "Read again", words: `Read ${what} again? What has run in this minute can ` +
    "run in it once more, and last runs are forgotten." }, `Done: read ${what} again.`, path)) await refresh(true);
}

// --- Daemon ---

const facts = new Source(() => askProgram("daemon"));
const log = new Source(() => askProgram("log"));

const bytes = (n) => (n === null ? "none" : n < 1e6 ? `${(n / 1e3).toFixed(1)} kB` : `${(n / 1e6).toFixed(1)} MB`);

function certificateFact(seconds) {
  if (!seconds) return "not told";
  const end = momentOfSeconds(seconds);
  const days = Math.floor((end - Date.now()) / DAY_MS);
  return el(days < 30 ? "span.trouble" : "span", timeNode(end), days < 0 ? ", has expired" : `, ${plural(days, "day")} left`);
}

function drawDaemon() {
  const card = (title, list) => el("section.card", el("h2", title), list);
  const [v, f] = [vitals.value ?? {}, facts.value];
  const ahead = Math.round(server.skew / 1000);
  const started = f && momentOfSeconds(f.started);
  const logs = Object.fromEntries((f?.logs ?? []).map(({ name, size }) => [name === "error" ? "Error log" : "Access log", bytes(size)]));
  $("facts").replaceChildren(card("Daemon", factList({ Version: v.DOVMAD_VERSION,
    Mode: v.DOMAIN_MODE === "TRUE" ? "server of a domain" : v.DOMAIN_MODE && "standalone",
    Started: f && el("span", timeNode(started), `, ${duration((Date.now() - started) / 1000)} ago`),
    Certificate: f && certificateFact(f.certificate_end),
    Clock: ahead === 0 ? "agrees with yours" : `${duration(Math.abs(ahead))} ${ahead > 0 ? "ahead of" : "behind"} yours`,
    Domains: Object.keys(v.DOMAINS ?? {}).join(", ") || null })),
  card("Host", factList({ Name: v.LOCAL_NAME === "UNKNOWN" ? "not told" : v.LOCAL_NAME, Address: v.LOCAL_ADDR,
    System: v.OSNAME, Release: v.OSRELEASE, Processor: v.CPUTYPE, Id: v.OSUUID === "UNKNOWN" ? "none" : v.OSUUID,
    Locale: v.LOCALE })),
  card("Load", !f ? el("p.muted", facts.trouble?.message ?? "Loading…") : factList({ Connections: count(f.connections),
    Descriptors: count(f.descriptors) + (f.descriptors_max ? ` of ${count(f.descriptors_max)}` : ""),
    Memory: bytes(f.memory), ...logs })));
  drawLog();
}

function drawLog() {
  const box = $("lines");
  const words = $("log-filter").value.toLowerCase().split(/\s+/).filter(Boolean);
  const isAtEnd = box.scrollTop + box.clientHeight >= box.scrollHeight - 8;
  const lines = (log.value?.lines ?? []).filter((line) => words.every((word) => line.toLowerCase().includes(word)));
  const blank = !log.value ? log.trouble?.message ?? "Loading…"
    : log.value.lines.length ? "No line has these words." : "The log is empty.";
  box.replaceChildren(...(lines.length ? [] : [el("p.muted", blank)]), ...lines.map((line) => {
    const [, clock, rest] = /^\[([^\]]+)\] (?:\[error\] )?(.*)$/.exec(line) ?? [];
    const shown = parseClock(clock ?? "");
    return el("div", Number.isNaN(shown) ? line : [timeNode(momentOf(shown)), " ", rest]);
  }));
  if (isAtEnd) box.scrollTop = box.scrollHeight;
}

async function resetKeys() {
  if (await act({ title: "Read keys again?", verb: "Read again", words: "Read the key, the certificate and the users " +
    "again? A broken pair is not taken up; the error log says why." }, "Done: keys are read again.",
  "/admin/security/reset")) await refresh(true);
}

async function stopDaemon() {
  if (!await act({ title: "Stop the daemon?", danger: true, verb: "Stop the daemon", typed: "stop", words:
    `The daemon on ${server.name} ends, and with it this page's answers. Only somebody on that host can start it again.` },
  "The companion service has ended; ending the daemon…", "/admin/lifecycle/stop")) return;
  // The second request ends it, without a reply.
  await ask("/admin/lifecycle/stop", { method: "POST", form: {} }).catch(() => {});
  await new Promise((resolve) => { setTimeout(resolve, 1500); });
  await ask("/world/ping").then(() => say("The daemon still answers.", true),
    () => say("The daemon has ended. On its host, systemctl start dovmad starts it again."));
  await refresh(true);
}

// --- The page around the views ---

// The first source of a view tells how old the view is.
const views = { hosts: { sources: [hosts], draw: drawHosts }, rights: { sources: [rights], draw: drawRights },
  schedule: { sources: [dump, upcoming], draw: drawSchedule }, daemon: { sources: [facts, log], draw: drawDaemon } };
const current = () => (Object.hasOwn(views, location.hash.slice(1)) ? location.hash.slice(1) : "hosts");

/** What there is to tell of a source, and how old its value is. */
function freshness(source) {
  const age = duration((Date.now() - source.at) / 1000);
  if (source.value === null && source.busy) return ["", `Loading… ${source.progress ? `${plural(source.progress, "host")} read` : ""}`];
  if (source.value === null) return [source.trouble?.kind === "absent" ? "" : "No answer so far.", ""];
  if (source.trouble) return [`Not refreshed: ${source.trouble.message}`, `What you see is ${age} old.`];
  const missing = [...(source.value.missing ?? [])].join(", ");
  const lack = missing && `This daemon is of another version: it does not tell ${missing}.`;
  return [lack, `As of ${readersText(source.at)}, ${age} ago.`];
}

function drawFreshness() {
  const [news, age] = $(current()).querySelector(".fresh").children;  // screen readers tell the news only
  const [source] = views[current()].sources;
  const [newsText, ageText] = freshness(vitals.trouble || (source === facts && facts.trouble && !facts.value) ? vitals : source);
  if (news.textContent !== newsText) news.textContent = newsText;
  age.textContent = ageText;
}

/** Draws the view; whoever stands on a button that is made anew stands on its successor. */
function draw() {
  const buttons = () => [...$(current()).querySelectorAll("button")];
  const place = buttons().indexOf(document.activeElement);
  views[current()].draw();
  drawFreshness();
  if (place >= 0 && document.activeElement === document.body) buttons()[place]?.focus();
}

/** Reads what is due of the view: all of it by hand, and else what was not read for some seconds. */
async function refresh(byHand = false, seconds = 0) {
  const isDue = (source) => source.isDue(byHand, seconds);
  const sources = views[current()].sources.filter(isDue);
  drawFreshness();
  if (sources.length === 0 && !isDue(vitals)) return;
  if (isDue(vitals)) await vitals.refresh();
  await Promise.all(sources.map((source) => source.refresh().then(draw)));
  if (sources.length === 0) draw();
}

function measure() {
  table.rowHeight = parseInt(getComputedStyle($("table")).getPropertyValue("--row"), 10) || 36;
  $("rows").style.height = `${table.shown.length * table.rowHeight}px`;
  drawRows(true);
}

function showView() {
  for (const name of Object.keys(views)) $(name).hidden = name !== current();
  for (const link of $("tabs").children) link.ariaCurrent = link.hash === `#${current()}` ? "page" : null;
  document.title = `${$(current()).querySelector("h1").textContent} · ${server.name} · dovmad`;
  measure();
  draw();
  refresh();
}

async function signIn(event) {
  event.preventDefault();
  const { name, password, namespace } = Object.fromEntries(new FormData($("login-form")));
  const sent = new TextEncoder().encode(`${name}:${password}`);
  Object.assign(session, { user: name, namespace: namespace || "plx", login: `Basic ${btoa(String.fromCharCode(...sent))}` });
  $("login-fields").disabled = true;
  $("login-trouble").textContent = "";
  try {
    await ask("/pub/", { anyStatus: true });  // for every user; whether it is there does not matter
  } catch (error) {
    session.login = "";
    $("login-trouble").textContent = error.message +
      (sent.length > 42 ? " It takes at most 42 bytes of name and password together." : "");
  }
  $("login-fields").disabled = false;
  if (session.login === "") return $("login-form").elements.password.select();
  await vitals.refresh();
  $("login-form").reset();
  [$("login").hidden, $("bar").hidden] = [true, false];
  $("user").textContent = session.user;
  $("grant").elements.namespace.value = session.namespace;
  showView();
  const pace = () => Number($("pace").value);
  setInterval(() => (pace() && !document.hidden ? refresh(false, pace()) : drawFreshness()), 1000);
  addEventListener("hashchange", showView);
  addEventListener("resize", measure);
}

function drawHead() {
  $("head").replaceChildren(...COLUMNS.map(([key, title]) => el(`span.cell.${key}`, { role: "columnheader",
    ariaSort: key !== table.sort ? "none" : table.falling ? "descending" : "ascending" },
  el("button.quiet", { onclick: () => {
    table.falling = table.sort === key && !table.falling;
    table.sort = key;
    drawHead();
    drawTable();
    $("head").querySelector(`.${key} button`).focus();
  } }, title))));
}

function pageKey(event) {
  if (/^(INPUT|SELECT)$/.test(event.target.tagName) || event.ctrlKey || event.metaKey || event.altKey ||
    $("bar").hidden || $("dialog").open) return;
  if (event.key === "r") refresh(true);
  if (event.key !== "/") return;
  event.preventDefault();
  $(current()).querySelector("input[type=search]")?.focus();
}

function listen() {
  const on = (id, type, act) => $(id).addEventListener(type, act);
  on("login-form", "submit", signIn);
  on("sign-out", "click", () => location.reload());
  for (const button of document.querySelectorAll(".again")) {
    Object.assign(button, { title: "Refresh now (r)", onclick: () => refresh(true) });
  }
  on("search", "input", () => drawTable());
  on("collectors", "click", changeCollectors);
  on("rescan", "click", () => rescan());
  on("reset", "click", resetKeys);
  on("stop", "click", stopDaemon);
  on("log-filter", "input", drawLog);
  on("dialog-no", "click", () => $("dialog").close(""));
  on("grant", "submit", (event) => {
    event.preventDefault();
    const { user, role, type, namespace } = Object.fromEntries(new FormData(event.target));
    changeRight(event.submitter?.value ?? "grant", user.trim(), role, type, namespace.trim());
  });
  on("table", "scroll", () => drawRows());
  on("table", "keydown", tableKey);
  on("rows", "click", (event) => choose(hostAt(table.pool.find(({ node }) => node.contains(event.target)).place).id));
  addEventListener("keydown", pageKey);
  drawHead();
  $("login-fields").disabled = false;
  $("login-form").elements.name.focus();
}

const isSafe = location.protocol === "https:" || /^(localhost|127(\.\d+){3}|\[::1\])$/.test(location.hostname);
$("login-words").textContent = isSafe ? `Sign in to the daemon on ${location.host}.`
  : "This page came over plain HTTP. Everybody on the way could read the password, or have changed the page itself, so it " +
    "takes none. Open it over https, on the daemon's TLS port.";
$("not-started").hidden = true;
if (isSafe) listen();
