// All the values as text: a table by phase, and a list of the rest.

import { NONE, amount, kilo, tenths } from "./words.js";

const plain = (value) => (value === null ? NONE : String(value));

// Rows: name, values of a plant by phase, how a value is written.
const ROWS = [
  ["Mains voltage, V", (plant) => plant.input.volts, plain],
  ["Mains current, A", (plant) => plant.input.amperes, tenths],
  ["Bypass voltage, V", (plant) => plant.bypass.volts, plain],
  ["Output voltage, V", (plant) => plant.output.volts, plain],
  ["Output current, A", (plant) => plant.output.amperes, tenths],
  ["Output peak, A", (plant) => plant.output.peaks, tenths],
  ["Load, %", (plant) => plant.output.load, plain],
  ["Power, W", (plant) => plant.output.watts, plain],
  ["Power, VA", (plant) => plant.output.va, plain],
];

const written = (plant) => (plant.written === null ? NONE
  : new Date(plant.written * 1000).toISOString().replace("T", " ").replace(".000Z", " UTC"));

const OTHERS = [
  ["Battery voltage", (plant) => amount(plant.battery.volts, "V")],
  ["Positive, negative branch", (plant) => `${amount(plant.battery.plus, "V")}, ${amount(plant.battery.minus, "V")}`],
  ["Battery current, branches", (plant) =>
    `${tenths(plant.battery.amperes)}\u00a0A, ${tenths(plant.battery.amperesMinus)}\u00a0A`],
  ["Battery charge", (plant) => amount(plant.battery.charge, "%")],
  ["Autonomy", (plant) => amount(plant.battery.minutes, "min")],
  ["Mains, bypass, output frequency", (plant) =>
    [plant.input, plant.bypass, plant.output].map((line) => `${tenths(line.hertz)}\u00a0Hz`).join(", ")],
  ["System temperature", (plant) => amount(plant.temperatures.system, "\u00b0C")],
  ["Inverter, rectifier", (plant) =>
    `${amount(plant.temperatures.inverter, "\u00b0C")}, ${amount(plant.temperatures.rectifier, "\u00b0C")}`],
  ["Further sensors", (plant) => plant.temperatures.more.map((value) => amount(value, "\u00b0C")).join(", ")],
  ["Nominal power", (plant) => `${kilo(plant.nominal.watts, "W")}, ${kilo(plant.nominal.va, "VA")}`],
  ["Model", (plant) => plant.identity.model || NONE],
  ["Serial number", (plant) => plant.identity.serial || NONE],
  ["Software", (plant) => plant.identity.version || NONE],
  ["Written, by the card's clock", written],
];

/** The table's body; made once, then only its texts change. */
export function fillPhases(body, plant) {
  if (body.rows.length === 0) {
    for (const [name] of ROWS) {
      const row = body.insertRow();
      const head = document.createElement("th");
      head.scope = "row";
      head.textContent = name;
      row.append(head);
      [0, 1, 2].forEach(() => row.insertCell());
    }
  }
  ROWS.forEach(([, values, write], i) => {
    const shown = values(plant);
    [0, 1, 2].forEach((phase) => {
      body.rows[i].cells[phase + 1].textContent = phase < shown.length ? write(shown[phase]) : "";
    });
  });
}

/** The list of the rest. */
export function fillOthers(list, plant) {
  if (list.children.length === 0) {
    for (const [name] of OTHERS) {
      const group = document.createElement("div");
      const term = document.createElement("dt");
      term.textContent = name;
      group.append(term, document.createElement("dd"));
      list.append(group);
    }
  }
  OTHERS.forEach(([, write], i) => { list.children[i].lastChild.textContent = write(plant); });
}
