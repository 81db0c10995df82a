// The television's screens: home, the first-run wizard, the settings menu with one record
// opened, and the updated-terms walk. Each view loads what it shows from the service and loads
// again when a notification says the store changed or the host came back.
import { service, listen, versions, NoHostError } from "./bridge.js";
import { installRemote, focusFirst } from "./nav.js";
import { el, button, buttonLabels, renderDisclaimer, answerState } from "./render.js";

const stage = document.getElementById("stage");
const viewBox = document.getElementById("view");
const COMMON_IDS = new Set(["main_common", "sub_common"]);
// The service gives up on the server after 90 s; the wizard waits a little longer.
const FETCH_TIMEOUT_MS = 150000;
const WIZARD_PAGE = "wizard-terms";
const PNP = 2;
const MENU = 0;

let current = null;
let hostUp = null;
// The power-off mark while the store is closed ({state, at}), else null.
let storeClosed = null;
// The view whose message the footer shows; a message ends with its view.
let messageOf = null;

// ---- the frame around every view --------------------------------------------------------------

function say(text, isError = false) {
  const message = document.getElementById("message");
  message.textContent = text;
  message.classList.toggle("error", isError);
  messageOf = current;
}

function closedWords() {
  return `The store is closed since the power-off (state ${storeClosed.state}) at ${storeClosed.at}. A restart of the service opens it.`;
}

function closedNote() {
  return storeClosed ? el("p", { class: "closed-note", "data-role": "store-closed" }, closedWords()) : null;
}

function report(error) {
  if (error instanceof NoHostError) say(`No service: ${error.message}`, true);
  else say(error.message || String(error), true);
}

function fitStage() {
  const scale = Math.min(window.innerWidth / 1920, window.innerHeight / 1080);
  stage.style.transform = `scale(${scale})`;
  stage.style.left = `${(window.innerWidth - 1920 * scale) / 2}px`;
  stage.style.top = `${(window.innerHeight - 1080 * scale) / 2}px`;
}

function show(view) {
  current = view;
  if (messageOf !== view) say("");
  messageOf = view;
  stage.dataset.view = view.name;
  // The address names the screen shown, so that setting it again is a change the tab follows.
  const hash = { menu: "#menu", wizard: "#wizard" }[view.name] || "";
  if (location.hash !== hash) history.replaceState(null, "", hash || location.pathname + location.search);
  delete stage.dataset.step;
  view.reload();
}

// Renders the current view. Painting the same screen again keeps the focus on the element with
// the same key; a new screen starts at its first action.
function paint(view, { title, progress, screen }, ...content) {
  if (view !== current) return;
  const same = viewBox.dataset.screen === screen;
  const focused = same && document.activeElement && document.activeElement.dataset.key;
  document.getElementById("view-title").textContent = title;
  document.getElementById("progress").textContent = progress || "";
  viewBox.dataset.screen = screen;
  viewBox.replaceChildren(...content.filter(Boolean));
  const again = focused && viewBox.querySelector(`[data-key="${CSS.escape(focused)}"]:not([disabled])`);
  if (again) again.focus();
  else focusFirst(viewBox);
}

function keyed(node, key) {
  node.dataset.key = key;
  return node;
}

// Runs a load; only the newest one of a view may paint.
async function loading(view, load) {
  const ticket = (view.ticket = (view.ticket || 0) + 1);
  try {
    const painter = await load();
    if (ticket === view.ticket && view === current) painter();
  } catch (error) {
    if (view === current) report(error);
  }
}

async function dependencyOf(record, known = []) {
  if (!record.agree_dependency) return null;
  const found = known.find((other) => other.id === record.agree_dependency);
  if (found) return found;
  const fetched = await service.byId(record.agree_dependency);
  return fetched || { id: record.agree_dependency, title: record.agree_dependency, is_agreed: false };
}

function revisedBanner(revised, from) {
  if (revised.length === 0) return null;
  const count = revised.length === 1 ? "1 term has changed" : `${revised.length} terms have changed`;
  return keyed(
    button(`Updated terms: ${count} since you answered. Review now`, () => show(new RevisedView(revised, from)), {
      class: "focusable banner",
      "data-role": "revised-banner",
    }),
    "revised",
  );
}

// Actions of a record screen: agree, disagree, and any further label just moves on.
function answerActions(record, done) {
  const labels = buttonLabels(record);
  if (record.only_notice) {
    const ack = labels[0] || { index: 1, label: "OK" };
    return [{ ...ack, run: () => done(null) }];
  }
  if (labels.length === 0) return [{ index: 0, label: "Next", run: () => done(null) }];
  return labels.map((label, i) => {
    const agreed = i === 0 ? true : i === 1 ? false : null;
    return {
      ...label,
      agrees: agreed === true,
      run: async () => {
        try {
          if (agreed !== null) await service.setOne(record.id, agreed);
          done(agreed);
          // Said on the screen the answer leads to, and gone when that screen goes.
          if (agreed !== null) say(`${agreed ? "Agreed to" : "Declined"} “${record.title || record.id}”`);
        } catch (error) {
          report(error);
        }
      },
    };
  });
}

// ---- home ---------------------------------------------------------------------------------------

class HomeView {
  name = "home";
  reload() {
    loading(this, async () => {
      const revised = await service.revised();
      return () =>
        paint(
          this,
          { title: "Home", screen: "home" },
          closedNote(),
          revisedBanner(revised, () => new HomeView()),
          el(
            "div",
            { class: "tiles" },
            keyed(
              button([el("strong", {}, "First-run setup"), el("span", {}, "The terms a new television asks for, one screen each")],
                () => show(new WizardView()), { class: "focusable tile", "data-autofocus": true }),
              "wizard",
            ),
            keyed(
              button([el("strong", {}, "Terms & Policies"), el("span", {}, "Settings: every term and notice with your answer")],
                () => show(new MenuView()), { class: "focusable tile" }),
              "menu",
            ),
          ),
        );
    });
  }
  back() {}
}

// ---- first-run wizard ---------------------------------------------------------------------------

class WizardView {
  name = "wizard";
  step = "fetching";
  records = [];
  index = 0;

  reload() {
    stage.dataset.step = this.step;
    if (this.step === "fetching") return this.fetch();
    if (this.step === "failed") return this.paintFailure();
    if (this.step === "done") return this.paintDone();
    return this.paintScreen();
  }

  async fetch() {
    if (storeClosed) {
      this.step = "fetching";
      return this.failed({ error_code: "none", error_reason: "closed" });
    }
    this.step = "fetching";
    stage.dataset.step = this.step;
    paint(this, { title: "First-run setup", screen: "fetching" },
      el("div", { class: "centre", "data-role": "fetching" },
        el("div", { class: "spinner" }),
        el("h1", {}, "Getting the latest terms"),
        el("p", {}, "The television is asking for the terms that apply to it. This takes a moment.")));
    clearTimeout(this.timer);
    this.timer = setTimeout(() => this.failed({ error_code: "none", error_reason: "timeout" }), FETCH_TIMEOUT_MS);
    try {
      await service.requestUpdate(WIZARD_PAGE);
    } catch (error) {
      clearTimeout(this.timer);
      report(error);
      this.failed({ error_code: "none", error_reason: "request", detail: error.message });
    }
  }

  onNotification(body) {
    if (body.name === "new_disclaimer_got" && this.step === "fetching" && body.wizard_page === WIZARD_PAGE) {
      clearTimeout(this.timer);
      if (body.result === "success") this.walk();
      else this.failed(body);
      return;
    }
    if (body.name === "new_disclaimer_agree_changed" && this.step === "screen") this.paintScreen();
  }

  failed(body) {
    if (this.step !== "fetching" || this !== current) return;
    this.step = "failed";
    this.failure = body;
    this.reload();
  }

  paintFailure() {
    const reasons = {
      0: "The terms server could not be reached or refused the request.",
      1: "The television's server settings were not ready in time.",
      timeout: "The service did not answer in time.",
      request: `The request did not reach the service: ${this.failure.detail || ""}`,
      closed: storeClosed ? closedWords() : "The store was closed by a power-off. A restart of the service opens it.",
    };
    const code = this.failure.error_code;
    paint(this, { title: "First-run setup", screen: "failure" },
      el("div", { class: "centre", "data-role": "failure" },
        el("h1", {}, "The terms could not be loaded"),
        this.failure.error_reason === "closed" ? null : el("div", { class: "error-code", "data-role": "error-code" }, `Error code ${code}`),
        el("p", { "data-role": "error-reason" }, reasons[this.failure.error_reason] ?? `Reason ${this.failure.error_reason}`),
        el("div", { class: "buttons" },
          keyed(button("Retry", () => this.fetch(), { "data-autofocus": true }), "retry"),
          keyed(button("Back", () => this.back()), "back"))));
  }

  async walk() {
    try {
      this.records = await service.ordered(PNP);
    } catch (error) {
      report(error);
      return this.failed({ error_code: "none", error_reason: "request", detail: error.message });
    }
    this.index = 0;
    this.step = this.records.length ? "screen" : "done";
    this.reload();
  }

  // The records a common screen speaks for: those after it, up to the next common one.
  membersOf(index) {
    const members = [];
    for (let i = index + 1; i < this.records.length && !COMMON_IDS.has(this.records[i].id); ++i) {
      members.push(this.records[i]);
    }
    return members;
  }

  goTo(index) {
    this.index = index;
    this.step = index < this.records.length ? "screen" : "done";
    this.reload();
  }

  paintScreen() {
    const index = this.index;
    loading(this, async () => {
      const record = (await service.byId(this.records[index].id)) || this.records[index];
      const dependency = await dependencyOf(record);
      return () => {
        const frame = { title: "First-run setup", progress: `Step ${index + 1} of ${this.records.length}`, screen: `wizard-${index}` };
        if (COMMON_IDS.has(record.id)) return paint(this, frame, this.commonScreen(record, index));
        const actions = answerActions(record, () => this.goTo(index + 1));
        paint(this, frame, renderDisclaimer(record, { dependency, actions }));
      };
    });
  }

  // A group's own screen: its first button agrees to every record of the group at once.
  commonScreen(record, index) {
    const members = this.membersOf(index);
    const labels = buttonLabels(record);
    const actions = labels.map((label, i) => ({
      ...label,
      run: i > 0 ? () => this.goTo(index + 1) : async () => {
        try {
          await service.setMany(members.filter((m) => !m.only_notice).map((m) => m.id), true);
          say(`Agreed to all of “${record.title}”`);
          this.goTo(index + 1 + members.length);
        } catch (error) {
          report(error);
        }
      },
    }));
    if (actions.length === 0) actions.push({ index: 0, label: "Next", run: () => this.goTo(index + 1) });
    // Each service of the group opens its own screen, where its full text is read.
    const list = el("ul", { class: "members", "data-role": "members" },
      members.map((m, i) => el("li", {},
        keyed(button(m.title || m.id, () => this.goTo(index + 1 + i), { "data-id": m.id }), `member-${m.id}`))));
    return renderDisclaimer(record, { actions, extra: list, untagged: true });
  }

  paintDone() {
    loading(this, async () => {
      const records = (await service.ordered(PNP)).filter((r) => !COMMON_IDS.has(r.id));
      return () =>
        paint(this, { title: "First-run setup", screen: "done" },
          el("div", { class: "centre", "data-role": "done" },
            el("h1", {}, "Setup complete"),
            el("ul", { class: "summary" },
              records.map((r) => el("li", { "data-id": r.id }, el("span", {}, r.title || r.id), el("span", {}, answerState(r).text)))),
            el("div", { class: "buttons" },
              keyed(button("Finish", () => show(new HomeView()), { "data-autofocus": true }), "finish"),
              keyed(button("Open Terms & Policies", () => show(new MenuView())), "menu"))));
    });
  }

  back() {
    clearTimeout(this.timer);
    if (this.step === "screen" && this.index > 0) return this.goTo(this.index - 1);
    show(new HomeView());
  }
}

// ---- settings menu ------------------------------------------------------------------------------

// Requester 0 lists its records by window, each window in its own order, so a window ends where
// the order stops rising. A window is named after the common record that heads it in the wizard.
function windowsOf(records, wizardRecords) {
  const heading = new Map();
  let head = null;
  for (const r of wizardRecords) {
    if (COMMON_IDS.has(r.id)) head = r.title || r.id;
    else if (head) heading.set(r.id, head);
  }
  const windows = [];
  for (const r of records) {
    const last = windows[windows.length - 1];
    if (!last || r.order <= last.records[last.records.length - 1].order) windows.push({ records: [] });
    windows[windows.length - 1].records.push(r);
  }
  for (const w of windows) {
    const named = w.records.find((r) => heading.has(r.id));
    w.title = named ? heading.get(named.id) : "More terms and notices";
  }
  return windows;
}

class MenuView {
  name = "menu";
  reload() {
    loading(this, async () => {
      const [records, wizardRecords, revised] = await Promise.all([service.ordered(MENU), service.ordered(PNP), service.revised()]);
      const known = records.concat(wizardRecords);
      const dependencies = await Promise.all(records.map((r) => dependencyOf(r, known)));
      return () => {
        const rows = [];
        windowsOf(records, wizardRecords).forEach((w) => {
          rows.push(el("h2", {}, w.title));
          for (const r of w.records) {
            const shown = answerState(r, dependencies[records.indexOf(r)]);
            rows.push(keyed(
              button([el("span", {}, r.title || r.id), el("span", { class: "tag", "data-state": shown.state }, shown.text)],
                () => show(new DetailView(r.id)), { class: "focusable row", "data-id": r.id, dir: r.reverse ? "rtl" : "ltr" }),
              `row-${r.id}`));
          }
        });
        if (records.length === 0) {
          rows.push(storeClosed ? closedNote()
            : el("p", {}, "The service holds no terms yet. Run the first-run setup to fetch them."));
        }
        paint(this, { title: "Settings › Terms & Policies", progress: `${records.length} items`, screen: "menu" },
          revisedBanner(revised, () => new MenuView()),
          el("div", { class: "menu", "data-role": "menu" }, rows),
          el("div", { class: "menu-actions" },
            keyed(button("Agree to all", () => this.agreeToAll()), "agree-all"),
            keyed(button("Back", () => this.back()), "back")));
      };
    });
  }
  async agreeToAll() {
    try {
      await service.setAll(true);
      say("Agreed to every term");
    } catch (error) {
      report(error);
    }
  }
  onNotification() {
    this.reload();
  }
  back() {
    show(new HomeView());
  }
}

class DetailView {
  name = "detail";
  constructor(id) {
    this.id = id;
  }
  reload() {
    loading(this, async () => {
      const record = await service.byId(this.id);
      if (!record) return () => (show(new MenuView()), say(`“${this.id}” is no longer offered`));
      const dependency = await dependencyOf(record);
      const actions = answerActions(record, () => this.back());
      return () =>
        paint(this, { title: "Settings › Terms & Policies", screen: `detail-${record.id}` }, renderDisclaimer(record, { dependency, actions }));
    });
  }
  onNotification() {
    this.reload();
  }
  back() {
    const menu = new MenuView();
    show(menu);
    // Back in the list, the remote points at the record that was open.
    menu.returnTo = this.id;
  }
}

// ---- updated terms ------------------------------------------------------------------------------

// The prompt's words: which version replaced which, and that the old one had the user's agreement.
function versionWords(record, seen) {
  const now = record.version ? `version ${record.version}` : "a new version";
  if (seen && seen.previous && seen.previous !== record.version) {
    return seen.previous_agreed
      ? `These terms changed from version ${seen.previous}, which you had agreed to, to ${now}. Please answer again.`
      : `These terms changed from version ${seen.previous} to ${now}. Please answer again.`;
  }
  return `These terms are new on this television (${now}), or changed since you agreed to them. Please answer.`;
}

class RevisedView {
  name = "revised";
  constructor(records, from) {
    this.records = records;
    this.from = from;
    this.index = 0;
  }
  reload() {
    const index = this.index;
    loading(this, async () => {
      const record = (await service.byId(this.records[index].id)) || this.records[index];
      const dependency = await dependencyOf(record);
      const seen = (await versions())[record.id];
      const actions = answerActions(record, () => this.next());
      const note = el("p", { class: "version-note", "data-role": "version-note" }, versionWords(record, seen));
      return () =>
        paint(this, { title: "Updated terms", progress: `${index + 1} of ${this.records.length}`, screen: `revised-${index}` },
          renderDisclaimer(record, { dependency, actions, extra: note }));
    });
  }
  next() {
    if (++this.index < this.records.length) return this.reload();
    show(this.from());
  }
  onNotification(body) {
    if (body.name === "new_disclaimer_agree_changed") this.reload();
  }
  back() {
    show(this.from());
  }
}

// ---- start --------------------------------------------------------------------------------------

function hostWords(up) {
  if (up && storeClosed) {
    const time = String(storeClosed.at).split(" ").pop();
    return `Store closed since the power-off at ${time} · restart the service`;
  }
  return up ? "Service connected" : up === null ? "Connecting…" : "No service running";
}

function setHost(up, title, text) {
  stage.dataset.host = up === null ? "unknown" : up ? "up" : "down";
  document.getElementById("host-state").textContent = hostWords(up);
  document.getElementById("no-host").hidden = up === true;
  document.getElementById("no-host-title").textContent = title;
  document.getElementById("no-host-text").textContent = text;
}

function start() {
  fitStage();
  window.addEventListener("resize", fitStage);
  // Focus restoring after a row's record was open, once the menu has painted.
  new MutationObserver(() => {
    if (current instanceof MenuView && current.returnTo) {
      const row = viewBox.querySelector(`[data-key="row-${CSS.escape(current.returnTo)}"]`);
      if (row) {
        row.focus();
        row.scrollIntoView({ block: "nearest" });
        current.returnTo = null;
      }
    }
  }).observe(viewBox, { childList: true });

  installRemote({
    rootOf: () => (hostUp ? viewBox : null),
    back: () => current && current.back(),
  });
  setHost(null, "Connecting to the service…", "");
  const viewOf = (hash) => ({ "#wizard": () => new WizardView(), "#menu": () => new MenuView() }[hash] || (() => new HomeView()))();
  // A changed address in an open tab goes to its screen, as a first load would.
  window.addEventListener("hashchange", () => {
    if (hostUp) show(viewOf(location.hash));
  });
  listen({
    host(up) {
      const was = hostUp;
      hostUp = up;
      if (!up) {
        return setHost(false, "The service is not running",
          "Start it with scripts/run.sh. This screen reconnects by itself as soon as the service is back.");
      }
      setHost(true, "", "");
      if (was === false) say("The service is back");
      if (!current) show(viewOf(location.hash));
      else current.reload();
    },
    store(state) {
      const was = storeClosed;
      storeClosed = state;
      stage.dataset.store = state ? "closed" : "open";
      document.getElementById("host-state").textContent = hostWords(hostUp);
      if (hostUp && current && Boolean(was) !== Boolean(state)) current.reload();
    },
    notification(body) {
      if (!current) return;
      if (current.onNotification) current.onNotification(body);
      else current.reload();
    },
    lost() {
      hostUp = null;
      setHost(null, "tarvo-screen is not answering", "Trying again…");
    },
  });
}

start();
