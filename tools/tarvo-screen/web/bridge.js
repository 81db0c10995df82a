// The page's road to the service: calls through tarvo-screen's /api/call, each reply checked
// for the shape the method must have, and the host's notifications from /api/events.

export class BridgeError extends Error {}
// The host is not running (or went away during the call).
export class NoHostError extends BridgeError {}

const STRING_KEYS = ["id", "version", "title", "intro", "details", "agree_dependency"];
for (let i = 1; i <= 10; ++i) STRING_KEYS.push(`button${i}`);
const BOOLEAN_KEYS = ["is_agreed", "only_notice", "ppused", "reverse"];

function isObject(value) {
  return value !== null && typeof value === "object" && !Array.isArray(value);
}

// The 21 keys of one disclaimer, each of its type.
export function isDisclaimer(value) {
  return (
    isObject(value) &&
    Number.isInteger(value.order) &&
    STRING_KEYS.every((key) => typeof value[key] === "string") &&
    BOOLEAN_KEYS.every((key) => typeof value[key] === "boolean")
  );
}

function unexpected(method, reply) {
  const text = JSON.stringify(reply);
  return new BridgeError(`unexpected reply to "${method}": ${text.length > 160 ? text.slice(0, 160) + "…" : text}`);
}

async function call(request) {
  let response;
  try {
    response = await fetch("/api/call", {
      method: "POST",
      headers: { "Content-Type": "application/json" },
      body: JSON.stringify(request),
    });
  } catch (e) {
    throw new NoHostError("tarvo-screen does not answer");
  }
  let body = null;
  try {
    body = await response.json();
  } catch (e) {
    throw new BridgeError(`"${request.method}": tarvo-screen answered ${response.status} without JSON`);
  }
  if (isObject(body) && body.no_host === true) throw new NoHostError(body.error || "no service is running");
  if (!response.ok) throw new BridgeError(`"${request.method}" refused: ${body.error || response.status}`);
  if (!isObject(body) || !("reply" in body)) throw unexpected(request.method, body);
  return body.reply;
}

// A reply that must be an object with "result": true.
async function confirmed(request) {
  const reply = await call(request);
  if (!isObject(reply) || reply.result !== true) throw unexpected(request.method, reply);
  return reply;
}

// The methods that answer with an empty reply on success.
async function emptyReply(request) {
  const reply = await call(request);
  if (reply !== null && !(isObject(reply) && Object.keys(reply).length === 0)) throw unexpected(request.method, reply);
}

// A disclaimer reply: the record, or null for "result": false.
function disclaimerOrNull(method, reply) {
  if (isObject(reply) && reply.result === false && Object.keys(reply).length === 1) return null;
  if (isObject(reply) && reply.result === true && isDisclaimer(reply)) return reply;
  throw unexpected(method, reply);
}

export const service = {
  async count(requester) {
    const reply = await confirmed({ method: "get disclaimer number", requester });
    if (!Number.isInteger(reply.number) || reply.number < 0) throw unexpected("get disclaimer number", reply);
    return reply.number;
  },
  async byOrder(requester, index) {
    const method = "get disclaimer by order";
    return disclaimerOrNull(method, await call({ method, requester, request_index: index }));
  },
  async byId(id) {
    const method = "get disclaimer by term id";
    return disclaimerOrNull(method, await call({ method, request_item: id }));
  },
  // Every record a requester sees, in display order.
  async ordered(requester) {
    const number = await this.count(requester);
    const records = [];
    for (let i = 0; i < number; ++i) {
      const record = await this.byOrder(requester, i);
      // The list shrank meanwhile; the next notification brings the new one.
      if (record === null) break;
      records.push(record);
    }
    return records;
  },
  async revised() {
    const method = "get revised disclaimers";
    const reply = await confirmed({ method });
    if (!("disclaimers" in reply)) return [];
    if (!Array.isArray(reply.disclaimers) || !reply.disclaimers.every(isDisclaimer)) throw unexpected(method, reply);
    return reply.disclaimers;
  },
  requestUpdate(from) {
    return confirmed({ method: "request update disclaimers", request_from: from });
  },
  setOne(id, agreed) {
    return confirmed({ method: "set one agreement", request_item: id, is_agreed: agreed });
  },
  setMany(ids, agreed) {
    const agreements = ids.map((id) => ({ request_item: id, is_agreed: agreed }));
    return emptyReply({ method: "set agreements", agreements });
  },
  setAll(agreed) {
    return emptyReply({ method: "set all agreement", is_agreed: agreed });
  },
};

// What tarvo-screen has seen of each record's versions: {id: {version, agreed, previous, previous_agreed}}.
export async function versions() {
  try {
    const response = await fetch("/api/versions");
    const body = await response.json();
    return isObject(body) ? body : {};
  } catch (e) {
    return {};
  }
}

// Opens the event stream; `handlers.host(up)`, `handlers.store(state)`, `handlers.notification(body)`,
// `handlers.lost()`.
export function listen(handlers) {
  const source = new EventSource("/api/events");
  source.addEventListener("host", (event) => handlers.host(JSON.parse(event.data).up === true));
  source.addEventListener("store", (event) => {
    const state = JSON.parse(event.data);
    handlers.store(isObject(state) && state.closed === true ? state : null);
  });
  source.addEventListener("notification", (event) => {
    let body = null;
    try {
      body = JSON.parse(event.data);
    } catch (e) {
      return;
    }
    handlers.notification(body);
  });
  // The EventSource reconnects by itself; the page only says so meanwhile.
  source.onerror = () => handlers.lost();
  return source;
}
