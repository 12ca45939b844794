// Trends: what was seen while the page was open, as small charts with their story in words.

import { mean } from "./plant.js";

const SVG = "http://www.w3.org/2000/svg";
// Seconds that are kept, and seconds without a value after which a line is broken.
const KEPT = 15 * 60;
const GAP = 5;
const WIDTH = 300;
const HEIGHT = 90;

// A chart: name, unit, decimals, its value in a plant, the lowest and highest values that are always in sight, and the
// smallest range, so that noise does not look like news.
const CHARTS = [
  { name: "Load", unit: "kW", digits: 1, of: (plant) => kilowatts(plant.watts), from: 0, range: 1 },
  { name: "Battery", unit: "%", digits: 0, of: (plant) => plant.battery.charge, from: 0, to: 100, range: 100 },
  { name: "Mains", unit: "V", digits: 0, of: (plant) => mean(plant.input.volts), range: 20 },
  { name: "Output", unit: "V", digits: 0, of: (plant) => mean(plant.output.volts), range: 20 },
  { name: "Battery current", unit: "A", digits: 1, of: (plant) => tenth(plant.battery.amperes), from: 0, range: 10 },
  { name: "Temperature", unit: "\u00b0C", digits: 0, of: (plant) => plant.temperatures.system, range: 10 },
];
const kilowatts = (watts) => (watts === null ? null : watts / 1000);
const tenth = (value) => (value === null ? null : value / 10);

function make(name, attributes, parent) {
  const node = document.createElementNS(SVG, name);
  for (const [key, value] of Object.entries(attributes)) {
    node.setAttribute(key, value);
  }
  parent.append(node);
  return node;
}

/** The charts, in `holder`. */
export class Trends {
  constructor(holder) {
    this.seen = [];
    this.views = CHARTS.map((chart) => view(chart, holder));
  }

  /** Keeps what a plant shows; now in seconds. Without a plant the lines have a gap. */
  add(plant, now) {
    this.seen.push({ time: now, values: CHARTS.map((chart) => (plant.modes.unknown ? null : chart.of(plant))) });
    while (this.seen[0].time < now - KEPT) {
      this.seen.shift();
    }
  }

  /** Draws the last `minutes`. */
  draw(now, minutes) {
    const begin = now - 60 * minutes;
    const seen = this.seen.filter((look) => look.time >= begin);
    CHARTS.forEach((chart, i) => {
      const points = seen.map((look) => [look.time, look.values[i]]);
      drawChart(chart, this.views[i], points, begin, now, minutes);
    });
  }
}

function view(chart, holder) {
  const figure = document.createElement("figure");
  figure.className = "trend";
  const caption = document.createElement("figcaption");
  const name = document.createElement("b");
  name.textContent = chart.name;
  const story = document.createElement("span");
  caption.append(name, " ", story);
  // The caption tells it; the picture itself has nothing to add for who cannot see it.
  const svg = document.createElementNS(SVG, "svg");
  svg.setAttribute("viewBox", `0 0 ${WIDTH} ${HEIGHT}`);
  svg.setAttribute("aria-hidden", "true");
  const grid = make("path", { class: "grid", d: `M0 8H${WIDTH}M0 ${HEIGHT - 18}H${WIDTH}` }, svg);
  const line = make("path", { class: "curve", d: "" }, svg);
  const top = make("text", { x: 2, y: 20 }, svg);
  const bottom = make("text", { x: 2, y: HEIGHT - 22 }, svg);
  const past = make("text", { x: 2, y: HEIGHT - 4 }, svg);
  make("text", { x: WIDTH - 2, y: HEIGHT - 4, "text-anchor": "end" }, svg).textContent = "now";
  figure.append(caption, svg);
  holder.append(figure);
  return { grid, line, top, bottom, past, story };
}

function drawChart(chart, view, points, begin, now, minutes) {
  const values = points.map(([, value]) => value).filter((value) => value !== null);
  view.past.textContent = `${minutes} min ago`;
  if (values.length === 0) {
    view.story.textContent = "no values";
    view.line.setAttribute("d", "");
    view.top.textContent = view.bottom.textContent = "";
    return;
  }
  const lowest = Math.min(...values);
  const highest = Math.max(...values);
  const text = (value) => value.toFixed(chart.digits);
  view.story.textContent = `${text(values.at(-1))}\u00a0${chart.unit}` +
    (text(lowest) === text(highest) ? "" : `, was ${text(lowest)} to ${text(highest)}`);
  const [low, high] = limits(chart, lowest, highest);
  view.top.textContent = String(high);
  view.bottom.textContent = String(low);
  const x = (time) => ((time - begin) / (now - begin)) * WIDTH;
  const y = (value) => 8 + ((high - value) / (high - low)) * (HEIGHT - 26);
  let path = "";
  let before = -Infinity;
  for (const [time, value] of points) {
    if (value === null) {
      before = -Infinity;
      continue;
    }
    path += `${time - before > GAP ? "M" : "L"}${x(time).toFixed(1)} ${y(value).toFixed(1)}`;
    before = time;
  }
  view.line.setAttribute("d", path);
}

function limits(chart, lowest, highest) {
  let low = Math.min(lowest, chart.from ?? lowest);
  let high = Math.max(highest, chart.to ?? chart.from ?? highest);
  const missing = chart.range - (high - low);
  if (missing > 0) {
    low -= chart.from === undefined ? missing / 2 : 0;
    high += chart.from === undefined ? missing / 2 : missing;
  }
  return [Math.floor(low), Math.ceil(high)];
}
