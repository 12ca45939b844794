// The status document: fetched, read without trust, and judged by its age.

// Seconds after which data count as old. A card whose plant has lost a cabinet may well write only every six seconds.
export const OLD_AFTER = 10;
// Seconds that an answer may take.
const PATIENCE = 5;

// The gateway writes these three texts as they came from a module, without escaping: a quote or a control character in
// them makes the document invalid. They stand on lines of their own, between keys that are known.
const TEXTS = /"TESTNUMBERJ": "([^]*?)",\n"UPSMODELJ": "([^]*?)",\n"UPSSWVERSIONJ": "([^]*?)",\n"NOMINALPOWERW": /;

/** The document of a text as an object; throws an Error if it is none. */
export function parse(text) {
  const quoted = text.replace(TEXTS, (_, serial, model, version) =>
    `"TESTNUMBERJ": ${JSON.stringify(serial)},\n"UPSMODELJ": ${JSON.stringify(model)},\n` +
    `"UPSSWVERSIONJ": ${JSON.stringify(version)},\n"NOMINALPOWERW": `);
  const doc = JSON.parse(quoted);
  if (doc === null || typeof doc !== "object" || Array.isArray(doc)) {
    throw new Error("not an object");
  }
  return doc;
}

// C0 and C1, soft hyphen, zero-width and direction marks, line separators, byte order mark.
const UNSEEN = /[\u0000-\u001f\u007f-\u009f\u00ad\u200b-\u200f\u2028-\u202f\u2060-\u206f\ufeff]/g;

/** A text of the document for people: no control characters, nothing that turns the reading direction, not long. */
export function clean(text, limit = 48) {
  if (typeof text !== "string") {
    return "";
  }
  const plain = text.replace(UNSEEN, "\ufffd");
  return plain.trim().slice(0, limit);
}

export const number = (doc, key) => (Number.isFinite(doc[key]) ? doc[key] : null);
export const flag = (doc, key) => (typeof doc[key] === "boolean" ? doc[key] : null);

/**
 * One look at the document. Never throws: {kind: "document", doc, text, date, modified} with the server's two times in
 * seconds or null; {kind: "missing", status}; {kind: "broken", why}; {kind: "unreachable"}.
 */
export async function fetchDocument(url) {
  const abort = new AbortController();
  const timer = setTimeout(() => abort.abort(), PATIENCE * 1000);
  try {
    const response = await fetch(url, { cache: "no-store", signal: abort.signal });
    if (!response.ok) {
      return { kind: "missing", status: response.status };
    }
    // The gateway knows bytes, not UTF-8; this decoding refuses none.
    const text = new TextDecoder("windows-1252").decode(await response.arrayBuffer());
    try {
      const doc = parse(text);
      return { kind: "document", doc, text, date: seconds(response, "Date"),
               modified: seconds(response, "Last-Modified") };
    } catch (error) {
      return { kind: "broken", why: text.trim() === "" ? "it is empty" : "it is not JSON" };
    }
  } catch (error) {
    return { kind: "unreachable" };
  } finally {
    clearTimeout(timer);
  }
}

function seconds(response, header) {
  const time = Date.parse(response.headers.get(header) ?? "");
  return Number.isNaN(time) ? null : time / 1000;
}

/**
 * How old the data are. The clock of the one who looks counts for nothing, a phone's may be off; the server's Date,
 * the file's Last-Modified and the time in the document come from one clock, the card's. And a document that has
 * stopped changing is old whatever its times say, since its own time should move.
 */
export class Freshness {
  constructor() {
    this.text = null;
    this.changedAt = 0;
    this.ageAtLook = 0;
    this.lookedAt = 0;
  }

  /** Takes a look of kind "document" in; now: seconds that only ever grow. */
  take(look, now) {
    if (look.text !== this.text) {
      this.text = look.text;
      this.changedAt = now;
    }
    const ages = [0];
    if (look.date !== null) {
      ages.push(look.date - (look.modified ?? look.date));
      ages.push(look.date - (number(look.doc, "timestamp") ?? look.date));
    }
    this.ageAtLook = Math.max(...ages);
    this.lookedAt = now;
  }

  /** Age in seconds, or null before the first document. */
  age(now) {
    return this.text === null ? null : Math.max(this.ageAtLook + now - this.lookedAt, now - this.changedAt);
  }
}
