// The words for what the document tells, and its numbers as people write them.

// Levels, worst first.
export const LEVELS = ["fault", "warning", "note"];
export const LEVEL_WORDS = { fault: "Fault", warning: "Warning", note: "Note" };

// Alarms that are flags of their own: key, level, words.
export const FLAG_ALARMS = [
  ["UPSFAILURE", "fault", "Failure in the plant"],
  ["UPSLOCK", "fault", "The UPS is locked"],
  ["BATTERYLOW", "fault", "The battery is low"],
  ["SHUTDOWNIMMIN", "fault", "Shutdown is imminent"],
  ["ALARMOVERLOAD", "fault", "The output is overloaded"],
  ["ALARMTEMPERATUR", "fault", "The temperature is too high"],
  ["BATTERYWORK", "warning", "The load runs from the battery"],
  ["ONBYPASS", "warning", "The load runs from the bypass"],
  ["REPLACEBATTERY", "warning", "The battery has to be replaced"],
  ["SHUTDOWNACTIVE", "warning", "A shutdown has been ordered"],
  ["TESTINPROGRESS", "note", "A battery test is running"],
];

// Alarms of the document's list.
export const LISTED_ALARMS = {
  SYSTEM_ANOMALY: ["warning", "Anomaly in the plant"],
  ECO_MODE: ["note", "Economy mode is on"],
  SWIN_OPEN: ["warning", "The input switch is open"],
  SWBYP_OPEN: ["warning", "The bypass switch is open"],
  SWBAT_EXT_OPEN: ["warning", "The switch of the external battery is open"],
  SWOUT_OPEN: ["warning", "The output switch of a cabinet is open, or nobody tells its position"],
  MANUAL_BYPASS_UPS: ["warning", "The manual bypass is closed"],
  BYPASS_BAD: ["warning", "The bypass line is out of its limits"],
  PARALLEL_LINK_OPEN: ["warning", "The link between the cabinets is open"],
  BATTERY_NOT_PRESENT_A62: ["fault", "No battery is there"],
  ALARM_REDUNDANCY: ["fault", "Redundancy is lost: the load needs every cabinet that is left"],
};
const LOST = /^MODULE_([1-4])_LOST$/;

/** Level and words of a name of the document's list; a name that is not known speaks for itself. */
export function listedAlarm(name) {
  const lost = LOST.exec(name);
  if (lost) {
    return ["fault", `Cabinet ${"ABCD"[lost[1] - 1]} does not answer, or its module`];
  }
  return Object.hasOwn(LISTED_ALARMS, name) ? LISTED_ALARMS[name] : ["warning", `Alarm ${name}`];
}

/** Numbers of phases by IOCONFIGURATION: input, output. */
export const PHASES = { 1: [1, 1], 2: [1, 3], 3: [3, 1], 4: [3, 3] };

export const NONE = "\u2013";

/** A number with a unit; a dash for none. */
export function amount(value, unit, digits = 0) {
  return value === null ? NONE : `${value.toFixed(digits)}\u00a0${unit}`;
}
/** Tenths, as the lines carry them: with their decimal while they are small. */
export function tenths(value) {
  return value === null ? NONE : (value / 10).toFixed(Math.abs(value) < 1000 ? 1 : 0);
}
/** Watts or volt-amperes in thousands. */
export function kilo(value, unit) {
  return value === null ? NONE : `${(value / 1000).toFixed(value < 100000 ? 1 : 0)}\u00a0k${unit}`;
}
/** The load and what the plant is made for. */
export function share(plant) {
  const whole = plant.nominal.watts === null ? NONE : (plant.nominal.watts / 1000).toFixed(0);
  return plant.watts === null ? NONE : `${(plant.watts / 1000).toFixed(1)} of ${whole}\u00a0kW`;
}
/** A stretch of time in words. */
export function span(seconds) {
  if (seconds < 90) {
    return `${Math.floor(seconds)}\u00a0s`;
  }
  return seconds < 5400 ? `${Math.floor(seconds / 60)}\u00a0min` : `${Math.floor(seconds / 3600)}\u00a0h`;
}
