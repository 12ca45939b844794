// What a document says of the plant: its alarms, where the power flows, and all of that in sentences.

import { clean, flag, number } from "./document.js";
import { FLAG_ALARMS, LEVELS, PHASES, amount, listedAlarm, share, tenths } from "./words.js";

// More names than there are alarms: a longer list is not the gateway's.
const MOST_ALARMS = 30;
// Autonomy that nobody has told.
const NO_TIME = 0xffff;

/** Three values of a quantity, null where there is none. */
export function phases(doc, key, second = "2", third = "3", first = "") {
  return [key + first, key + second, key + third].map((name) => number(doc, name));
}

const sum = (values) => (values.some((value) => value === null) ? null : values.reduce((a, b) => a + b, 0));

/** The mean of the values that are there and alive. */
export function mean(values) {
  const alive = values.filter((value) => value !== null && value > 0);
  return alive.length ? alive.reduce((a, b) => a + b, 0) / alive.length : values[0] === null ? null : 0;
}

/** Everything that the page shows, from a document. */
export function read(doc) {
  const [phasesIn, phasesOut] = PHASES[number(doc, "IOCONFIGURATION")] ?? [3, 3];
  const listed = Array.isArray(doc.statusAlarms) ? doc.statusAlarms.slice(0, MOST_ALARMS) : [];
  const names = listed.map((name) => clean(name));
  const plant = {
    input: { volts: phases(doc, "INPUTVOLTAGE").slice(0, phasesIn), hertz: number(doc, "INPUTFREQUENCY"),
             amperes: phases(doc, "INPUTCURRENT").slice(0, phasesIn) },
    bypass: { volts: phases(doc, "BYPASSVOLTAGE").slice(0, phasesIn), hertz: number(doc, "BYPASSFREQUENCY") },
    output: { volts: phases(doc, "OUTPUTVOLTAGE").slice(0, phasesOut), hertz: number(doc, "OUPUTFREQUENCY"),
              amperes: phases(doc, "OUTPUTCURRENT").slice(0, phasesOut),
              peaks: phases(doc, "OUTPUTCURRENTP", "2", "3", "1").slice(0, phasesOut),
              load: phases(doc, "OUTPUTLOAD").slice(0, phasesOut),
              watts: phases(doc, "OUTPUTPOWER").slice(0, phasesOut),
              va: phases(doc, "OUTPUTPOWERVA", "2", "3", "1").slice(0, phasesOut) },
    battery: { volts: number(doc, "BATTERYVOLTAGE"), plus: number(doc, "VBATPLUS"), minus: number(doc, "VBATMINUS"),
               amperes: number(doc, "BATTERYCURRENT"), amperesMinus: number(doc, "BATTERYCURRENTMINUS"),
               charge: number(doc, "BATTERYESTCHARG"), minutes: number(doc, "BATTERYESTTIME") },
    temperatures: { system: number(doc, "SYSTEMTEMP"), inverter: number(doc, "INVTEMP"),
                    rectifier: number(doc, "RECTTEMP"),
                    more: ["TEMP1", "TEMP2", "TEMP3", "TEMP4"].map((key) => number(doc, key)) },
    nominal: { watts: number(doc, "NOMINALPOWERW"), va: number(doc, "NOMINALPOWERVA") },
    identity: { model: clean(doc.UPSMODELJ), serial: clean(doc.TESTNUMBERJ), version: clean(doc.UPSSWVERSIONJ) },
    written: number(doc, "timestamp"),
    has: (name) => names.includes(name),
  };
  plant.watts = sum(plant.output.watts);
  plant.va = sum(plant.output.va);
  if (plant.battery.minutes >= NO_TIME) {
    plant.battery.minutes = null;
  }
  plant.modes = readModes(doc, plant);
  if (plant.modes.bypass) {
    plant.output.load = plant.output.load.map(() => null);  // the gateway works none out on bypass, and writes zeros
  }
  plant.flows = readFlows(plant.modes);
  plant.alarms = readAlarms(doc, names);
  return plant;
}

function readModes(doc, plant) {
  const powered = flag(doc, "OUTPUTPOWERED");
  const volts = [...plant.input.volts, ...plant.bypass.volts, ...plant.output.volts];
  const manual = plant.has("MANUAL_BYPASS_UPS");
  const bypass = powered === true && flag(doc, "ONBYPASS") === true;
  const battery = powered === true && flag(doc, "BATTERYWORK") === true;
  return {
    // With no module that answers every value is zero, which must not read as a plant that is off.
    unknown: powered === null || (!powered && plant.nominal.va === 0 && volts.every((value) => value === 0)),
    powered: powered === true,
    manual,
    bypass,
    battery,
    inverter: powered === true && !bypass && !battery,
    charging: flag(doc, "BATTERYCHARGING") === true && !battery,
    eco: plant.has("ECO_MODE"),
    test: flag(doc, "TESTINPROGRESS") === true,
    low: flag(doc, "BATTERYLOW") === true,
  };
}

/** Which parts of the diagram carry power. */
function readFlows(modes) {
  return {
    mains: modes.inverter || modes.charging,
    discharge: modes.battery,
    charge: modes.charging,
    inverter: modes.inverter || modes.battery,
    bypass: modes.bypass,
    manual: modes.manual,
    load: modes.powered || modes.manual,
  };
}

function readAlarms(doc, names) {
  const found = FLAG_ALARMS.filter(([key]) => flag(doc, key) === true)
    .map(([key, level, text]) => ({ id: key, level, text }));
  for (const name of new Set(names)) {
    const [level, text] = listedAlarm(name);
    found.push({ id: name, level, text });
  }
  return found.sort((a, b) => LEVELS.indexOf(a.level) - LEVELS.indexOf(b.level));
}

// The first line that fits is what the plant does, in words.
const HEADLINES = [
  [(m) => m.unknown, "fault", "No module answers: nothing is known of the plant"],
  [(m) => m.manual, "warning", "Manual bypass: the mains feed the load unprotected"],
  [(m) => !m.powered, "fault", "The output is off"],
  [(m) => m.battery && m.bypass, "warning", "On battery and on bypass"],
  [(m) => m.battery && m.test, "note", "Battery test: the battery feeds the load"],
  [(m) => m.battery && m.low, "fault", "On battery, and the battery is low"],
  [(m) => m.battery, "warning", "On battery"],
  [(m) => m.bypass && m.eco, "note", "Economy mode: the bypass feeds the load"],
  [(m) => m.bypass, "warning", "On bypass: the load is not protected"],
  [() => true, "well", "The mains feed the load through the inverter"],
];

/** What the plant does: level ("well" or one of LEVELS) and a sentence without numbers, which changes rarely. */
export function headline(plant) {
  const [, level, text] = HEADLINES.find(([fits]) => fits(plant.modes));
  const worst = level === "well" && plant.alarms.length ? plant.alarms[0].level : level;
  return { level: worst, text };
}

/** The diagram in sentences. */
export function describe(plant) {
  const { modes, battery, input, bypass, output } = plant;
  if (modes.unknown) {
    return "No values: no module answers.";
  }
  const said = [];
  const live = (line) => line.volts.some((value) => value !== null && value > 0);
  const at = (line) => `${amount(mean(line.volts), "V")}, ${tenths(line.hertz)}\u00a0Hz`;
  said.push(live(input) ? `Mains ${at(input)}${plant.flows.mains ? ", feeding the rectifier" : ", not used"}.`
    : "No mains.");
  said.push(live(bypass) ? `Bypass line ${at(bypass)}${modes.bypass ? ", feeding the load" : ", ready"}.`
    : "No voltage on the bypass line.");
  const doing = modes.battery ? "discharging" : modes.charging ? "charging" : "at rest";
  const left = battery.minutes === null ? "" : `, good for ${amount(battery.minutes, "min")}`;
  said.push(`Battery ${amount(battery.charge, "%")}, ${doing}${left}.`);
  said.push(modes.powered ? `Output ${at(output)}; the load takes ${share(plant)}.` : "Output off.");
  return said.join(" ");
}
