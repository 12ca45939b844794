// The single-line diagram. Two arrangements of the same parts, for wide and for narrow screens, each a table of places.

import { NONE, amount, share, tenths } from "./words.js";

const SVG = "http://www.w3.org/2000/svg";

// Parts by name: left and top of the box. Lines by flow: a path, in the direction of the power. Switches: centre, and
// whether the line there runs down. Joints: where lines meet.
const WIDE = {
  width: 960, height: 372, box: [164, 92],
  parts: { bypass: [8, 46], mains: [8, 160], rectifier: [252, 160], inverter: [524, 160], load: [788, 160],
           battery: [388, 274] },
  lines: {
    mains: "M172 206H252", dc: "M416 206H470", discharge: "M470 274V206", charge: "M470 206V274",
    inverter: "M470 206H524", output: "M688 206H730", bypass: "M172 92H730V206", manual: "M226 92V22H730V92",
    load: "M730 206H788",
  },
  switches: { input: [212, 206], bypassInput: [198, 92], bypass: [470, 92], manual: [470, 22],
              battery: [470, 246, true], output: [760, 206] },
  names: { bypass: [470, 118], manual: [470, 46] },
  joints: [[470, 206], [730, 206], [730, 92], [226, 92]],
};
const NARROW = {
  width: 364, height: 588, box: [152, 88],
  parts: { mains: [4, 4], bypass: [188, 4], rectifier: [4, 132], battery: [160, 238], inverter: [4, 344],
           load: [4, 496] },
  lines: {
    mains: "M80 92V132", dc: "M80 220V282", discharge: "M160 282H80", charge: "M80 282H160",
    inverter: "M80 282V344", output: "M80 432V464", bypass: "M328 92V464H80", manual: "M328 146H354V428H328",
    load: "M80 464V496",
  },
  switches: { input: [80, 112, true], bypassInput: [328, 118, true], bypass: [328, 380, true], manual: [354, 200, true],
              battery: [120, 282], output: [80, 480, true] },
  names: { bypass: [266, 385], manual: [266, 205] },
  joints: [[80, 282], [80, 464], [328, 146], [328, 428]],
};

const NAMES = { mains: "Mains", bypass: "Bypass line", rectifier: "Rectifier", battery: "Battery", inverter: "Inverter",
                load: "Load" };
const SWITCH_NAMES = { bypass: "static switch", manual: "manual bypass" };
// The line's class names the source of its power.
const LINES = ["dc", "mains", "charge", "discharge", "inverter", "output", "bypass", "manual", "load"];

function make(name, attributes, parent, text) {
  const node = document.createElementNS(SVG, name);
  for (const [key, value] of Object.entries(attributes)) {
    node.setAttribute(key, value);
  }
  if (text !== undefined) {
    node.textContent = text;
  }
  parent.append(node);
  return node;
}

/** Draws the plant into `holder`, and again in the other arrangement when the screen's width changes. */
export class Diagram {
  constructor(holder) {
    this.holder = holder;
    this.last = null;
    const narrow = matchMedia("(max-width: 700px)");
    const rebuild = () => {
      this.build(narrow.matches ? NARROW : WIDE);
      if (this.last) {
        this.show(...this.last);
      }
    };
    narrow.addEventListener("change", rebuild);
    rebuild();
  }

  build(layout) {
    const svg = document.createElementNS(SVG, "svg");
    svg.setAttribute("viewBox", `0 0 ${layout.width} ${layout.height}`);
    svg.setAttribute("role", "img");
    svg.setAttribute("aria-labelledby", "diagram-name");
    svg.setAttribute("aria-describedby", "flow");
    make("title", { id: "diagram-name" }, svg, "Single-line diagram of the plant");
    this.arrow(svg);
    this.lines = {};
    for (const name of LINES) {
      this.lines[name] = make("path", { class: `line line-${name}`, d: layout.lines[name] }, svg);
    }
    // The live ones once more on top, so that no idle line crosses them, with the moving dashes.
    this.live = {};
    for (const name of LINES) {
      this.live[name] = make("path", { class: `live live-${name}`, d: layout.lines[name], "marker-mid": "url(#arrow)",
                                       "marker-end": "url(#arrow)" }, svg);
    }
    for (const [x, y] of layout.joints) {
      make("circle", { class: "joint", cx: x, cy: y, r: 4 }, svg);
    }
    this.switches = {};
    for (const [name, [x, y, down]] of Object.entries(layout.switches)) {
      const turn = down ? " rotate(-90)" : "";
      const group = make("g", { class: "switch", transform: `translate(${x} ${y})${turn}` }, svg);
      make("rect", { class: "gap", x: -11, y: -7, width: 22, height: 14 }, group);
      make("circle", { cx: -11, cy: 0, r: 3 }, group);
      make("circle", { cx: 11, cy: 0, r: 3 }, group);
      this.switches[name] = make("path", { class: "blade", d: "" }, group);
    }
    for (const [name, [x, y]] of Object.entries(layout.names)) {
      make("text", { class: "name", x, y, "text-anchor": "middle" }, svg, SWITCH_NAMES[name]);
    }
    this.parts = {};
    this.room = layout.box[0] - 20;
    for (const [name, [x, y]] of Object.entries(layout.parts)) {
      const group = make("g", { class: `part part-${name}`, transform: `translate(${x} ${y})` }, svg);
      const [width, height] = layout.box;
      make("rect", { class: "box", width, height, rx: 8 }, group);
      make("text", { class: "title", x: 12, y: 24 }, group, NAMES[name]);
      const values = [0, 1].map((i) => make("text", { class: "value", x: 12, y: 50 + 24 * i }, group, ""));
      this.parts[name] = { group, values };
    }
    this.gauge(this.parts.battery.group, layout.box[0]);
    this.holder.replaceChildren(svg);
  }

  arrow(svg) {
    const marker = make("marker", { id: "arrow", viewBox: "0 0 8 8", refX: 6, refY: 4, markerWidth: 3.2,
                                    markerHeight: 3.2, orient: "auto" }, make("defs", {}, svg));
    make("path", { d: "M0 0 8 4 0 8z", class: "arrow" }, marker);
  }

  /** A small battery that fills, in the corner of its box. */
  gauge(group, width) {
    make("rect", { class: "gauge", x: width - 54, y: 11, width: 38, height: 16, rx: 3 }, group);
    make("rect", { class: "gauge-tip", x: width - 15, y: 15, width: 4, height: 8 }, group);
    this.level = make("rect", { class: "gauge-level", x: width - 52, y: 13, width: 0, height: 12, rx: 1 }, group);
  }

  /** Shows a plant. With `isOld` nothing moves, since nobody knows. */
  show(plant, isOld) {
    this.last = [plant, isOld];
    const { flows, modes } = plant;
    const carries = { ...flows, dc: flows.mains, output: flows.inverter };
    for (const name of LINES) {
      this.live[name].classList.toggle("on", Boolean(carries[name]) && !modes.unknown && !isOld);
      this.live[name].classList.toggle("from-battery", modes.battery && ["inverter", "output", "load"].includes(name));
      this.live[name].classList.toggle("from-bypass", (modes.bypass || modes.manual) && name === "load");
    }
    const isOpen = {
      input: plant.has("SWIN_OPEN"), bypassInput: plant.has("SWBYP_OPEN"), battery: plant.has("SWBAT_EXT_OPEN"),
      // It is told open as soon as one cabinet's is.
      output: plant.has("SWOUT_OPEN") && !modes.powered, bypass: !modes.bypass, manual: !modes.manual,
    };
    for (const [name, open] of Object.entries(isOpen)) {
      this.switches[name].setAttribute("d", open ? "M-11 0 9 -11" : "M-11 0H11");
    }
    const alive = {
      mains: some(plant.input.volts), bypass: some(plant.bypass.volts), rectifier: flows.mains,
      inverter: flows.inverter, battery: !plant.has("BATTERY_NOT_PRESENT_A62"), load: flows.load,
    };
    for (const [name, lines] of Object.entries(texts(plant))) {
      const part = this.parts[name];
      part.group.classList.toggle("alive", Boolean(alive[name]) && !modes.unknown);
      lines.forEach((line, i) => write(part.values[i], line, this.room));
    }
    this.level.setAttribute("width", Math.max(0, Math.min(100, plant.battery.charge ?? 0)) * 0.34);
  }
}

/** Sets a value's text, pressed together where it would leave its box. */
function write(node, text, room) {
  if (node.textContent === text) {
    return;
  }
  node.textContent = text;
  node.removeAttribute("textLength");
  if (node.getComputedTextLength() > room) {
    node.setAttribute("textLength", room);
    node.setAttribute("lengthAdjust", "spacingAndGlyphs");
  }
}

const some = (values) => values.some((value) => value !== null && value > 0);
// Values of the phases side by side; one dash if there are none at all.
const row = (values, unit) =>
  (values.every((value) => value === null) ? NONE : `${values.map((value) => value ?? NONE).join(" ")}\u00a0${unit}`);

/** The two lines in each box. */
function texts(plant) {
  const { input, bypass, output, battery, temperatures } = plant;
  const current = battery.amperes === null ? NONE : `${battery.amperes > 0 ? "+" : ""}${tenths(battery.amperes)}`;
  return {
    mains: [row(input.volts, "V"), `${tenths(input.hertz)}\u00a0Hz`],
    bypass: [row(bypass.volts, "V"), `${tenths(bypass.hertz)}\u00a0Hz`],
    rectifier: [row(input.amperes.map((value) => (value === null ? null : Math.round(value / 10))), "A"),
                amount(temperatures.rectifier, "\u00b0C")],
    inverter: [row(output.volts, "V"), `${tenths(output.hertz)}\u00a0Hz, ${amount(temperatures.inverter, "\u00b0C")}`],
    battery: [`${amount(battery.volts, "V")}, ${current}\u00a0A`,
              `${amount(battery.charge, "%")}, ${amount(battery.minutes, "min")}`],
    load: [share(plant), row(output.load, "%")],
  };
}
