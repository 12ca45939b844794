// The page: looks at the document every second and shows what it says, and how far it can be believed.

import { Diagram } from "./diagram.js";
import { Freshness, OLD_AFTER, fetchDocument } from "./document.js";
import { fillOthers, fillPhases } from "./measures.js";
import { describe, headline, read } from "./plant.js";
import { Trends } from "./trends.js";
import { LEVEL_WORDS, span } from "./words.js";

const PERIOD = 1000;
// Failed looks in a row after which the document counts as gone: a server that restarts is no news.
const MISSES = 3;

const at = (id) => document.getElementById(id);
const now = () => performance.now() / 1000;

const freshness = new Freshness();
const diagram = new Diagram(at("diagram"));
const trends = new Trends(at("trends"));
let plant = null;
let misses = 0;
let isPaused = false;
let timer = 0;
let spokenAlarms = null;

// What the page says of its own data, by state: the badge, and the banner for everything but good ones.
const STATES = {
  waiting: { badge: "Waiting", banner: () => "" },
  fresh: { badge: "Live", banner: () => "" },
  paused: { badge: "Paused", banner: () => "Paused: what is shown below does not change." },
  old: { badge: "Old data",
         banner: () => "These data are old: the gateway has stopped writing them. " +
                       "What is shown below may no longer be true." },
  missing: { badge: "No data",
             banner: (look) => `The status file is not there (answer ${look.status}): ` +
                               "the gateway does not run, or has not written it yet." },
  broken: { badge: "No data", banner: (look) => `The status file cannot be read: ${look.why}.` },
  unreachable: { badge: "No data", banner: () => "The card does not answer." },
};

/** Sets a text only if it differs: a live region would speak again. */
function put(id, text) {
  const node = at(id);
  if (node.textContent !== text) {
    node.textContent = text;
  }
}

function state(look) {
  if (isPaused) {
    return "paused";
  }
  if (look.kind !== "document" && (plant === null || misses >= MISSES)) {
    return look.kind;
  }
  return plant === null ? "waiting" : freshness.age(now()) > OLD_AFTER ? "old" : "fresh";
}

function show(look) {
  const current = state(look);
  const isBelieved = current === "fresh" || current === "paused";
  document.body.dataset.state = current;
  put("badge", STATES[current].badge);
  const isGone = !isBelieved && current !== "old" && plant !== null;
  put("banner", STATES[current].banner(look) + (isGone ? " The last known values are shown below." : ""));
  const age = freshness.age(now());
  put("age", age === null ? "" : `written ${span(age)} ago`);
  if (plant === null) {
    put("headline", current === "waiting" ? "Waiting for the first data" : "Nothing is known of the plant");
    document.title = `${STATES[current].badge} \u2013 UPS plant`;
    return;
  }
  const { level, text } = headline(plant);
  document.body.dataset.level = level;
  put("known", isBelieved ? "" : "Last known: ");
  put("headline", text);
  document.title = `${isBelieved ? text : STATES[current].badge} \u2013 UPS plant`;
  put("flow", `${isBelieved ? "" : "Last known: "}${describe(plant)}`);
  diagram.show(plant, !isBelieved);
  showAlarms(plant.alarms, isBelieved);
  fillPhases(at("phases"), plant);
  fillOthers(at("others"), plant);
  const { model, serial } = plant.identity;
  put("identity", [model, serial && `serial number ${serial}`].filter(Boolean).join(", "));
  trends.draw(now(), Number(at("window").value));
}

function showAlarms(alarms, isBelieved) {
  put("alarms-title", alarms.length ? `Alarms (${alarms.length})` : "Alarms");
  put("no-alarms", alarms.length ? "" : isBelieved ? "None." : "None when the data were last good.");
  at("no-alarms").hidden = alarms.length > 0;
  const ids = alarms.map((alarm) => alarm.id).join(" ");
  const list = at("alarms");
  if (list.dataset.ids === ids) {
    return;
  }
  list.dataset.ids = ids;
  list.replaceChildren(...alarms.map(({ level, text }) => {
    const item = document.createElement("li");
    const word = document.createElement("b");
    item.className = level;
    word.textContent = LEVEL_WORDS[level];
    item.append(word, " ", text);
    return item;
  }));
  announce(alarms);
}

/** Speaks what has come and gone since the last time; at first there is nothing new, the list can be read. */
function announce(alarms) {
  const before = spokenAlarms;
  spokenAlarms = new Map(alarms.map(({ id, text }) => [id, text]));
  if (before === null) {
    return;
  }
  const come = alarms.filter(({ id }) => !before.has(id)).map(({ text }) => text);
  const gone = [...before].filter(([id]) => !spokenAlarms.has(id)).map(([, text]) => text);
  put("announcer", [come.length && `New: ${come.join("; ")}.`, gone.length && `No longer: ${gone.join("; ")}.`]
    .filter(Boolean).join(" "));
}

async function look() {
  const begin = performance.now();
  const seen = await fetchDocument(document.body.dataset.document);
  if (isPaused) {
    return;  // the answer came too late
  }
  misses = seen.kind === "document" ? 0 : misses + 1;
  if (seen.kind === "document") {
    freshness.take(seen, now());
    plant = read(seen.doc);
    if (freshness.age(now()) <= OLD_AFTER) {
      trends.add(plant, now());
    }
  }
  show(seen);
  timer = setTimeout(look, Math.max(0, PERIOD - (performance.now() - begin)));
}

at("pause").addEventListener("click", () => {
  isPaused = !isPaused;
  at("pause").setAttribute("aria-pressed", String(isPaused));
  clearTimeout(timer);
  if (isPaused) {
    show({ kind: "document" });
  } else {
    look();
  }
});
at("window").addEventListener("change", () => trends.draw(now(), Number(at("window").value)));
look();
