#pragma once

// The JavaScript side of one run. Evaluated once, it yields a function that takes the request
// text and a native that compiles a script as a CommonJS module body. That function loads the
// script, calls the export for the hook and returns a getter for the answer text, which stays
// undefined until the hook (possibly async) has settled. Everything the script may change
// (JSON, Object, prototypes) is captured before the script runs.
inline constexpr char moduleHarness[] = R"js(
(function (requestText, compileModule) {
  "use strict";
  const { parse, stringify } = JSON;
  const { hasOwn } = Object;
  const isFunction = (value) => typeof value === "function";

  // Result keys in answer order; the second name is the spelling JavaScript authors reach for.
  const resultKeys = [
    ["prompt"], ["temperature"], ["max_tokens", "maxTokens"], ["agent_name", "agentName"],
    ["name"], ["tick_every", "tickEvery"], ["has_on_reply", "hasOnReply"], ["state"],
    ["display"], ["data"], ["inject"], ["respond"], ["next"],
  ];
  const exportFor = { turn: "prompt", reply: "onReply", tick: "onTick", info: "info" };

  function describe(error) {
    if (error instanceof Error) {
      const message = String(error.message);
      if (error.name === "Error")
        return message;
      // Engine errors (syntax, type, reference) say where in the script they happened.
      const line = error.fileName === "script" && error.lineNumber > 0
        ? ` (line ${error.lineNumber})` : "";
      return `${error.name}: ${message}${line}`;
    }
    return String(error);
  }

  function failure(error) {
    const message = describe(error);
    return stringify({ error: message === "" ? "The script stopped with an empty error" : message });
  }

  function asJSONText(value, key) {
    const text = stringify(value);
    if (typeof text !== "string")
      throw new Error(`${key} cannot be saved as JSON`);
    return text;
  }

  function resultOf(value, hook, exported) {
    if (value === undefined || value === null)
      return {};
    if (typeof value === "string") {
      if (hook === "turn")
        return { prompt: value };
      if (hook === "reply")
        return { display: value };
    }
    if (typeof value !== "object" || Array.isArray(value))
      throw new Error(`${exported} must return an object, not ${Array.isArray(value) ? "an array" : typeof value}`);
    const result = {};
    for (const [key, alias] of resultKeys) {
      let field = value[key];
      if (field === undefined && alias !== undefined)
        field = value[alias];
      if (field === undefined)
        continue;
      if (key === "state")
        field = asJSONText(field, "state");
      else if (key === "data" && typeof field !== "string")
        field = asJSONText(field, "data");
      result[key] = field;
    }
    return result;
  }

  // Values the exports themselves declare: the title and agent name for "turn" and "info",
  // and for "info" whether replies are handled and how often the timer runs.
  function declared(exports, hook) {
    const result = {};
    if (hook !== "turn" && hook !== "info")
      return result;
    if (typeof exports.name === "string")
      result.name = exports.name;
    if (typeof exports.agentName === "string")
      result.agent_name = exports.agentName;
    if (hook === "info") {
      if (typeof exports.tickEvery === "number")
        result.tick_every = exports.tickEvery;
      result.has_on_reply = isFunction(exports.onReply);
    }
    return result;
  }

  let answer;
  function finish(exports, hook, exported, value) {
    try {
      const result = { ...declared(exports, hook), ...resultOf(value, hook, exported) };
      const ordered = {};
      for (const [key] of resultKeys) {
        if (hasOwn(result, key))
          ordered[key] = result[key];
      }
      answer = stringify(ordered);
    } catch (error) {
      answer = failure(error);
    }
  }

  try {
    const request = parse(requestText);
    const hook = request.hook;
    const exported = hasOwn(exportFor, hook) ? exportFor[hook] : undefined;
    if (exported === undefined)
      throw new Error(`Unknown hook: ${hook}`);

    const context = { ...request.context };
    if (typeof request.state === "string" && request.state !== "") {
      try {
        context.state = parse(request.state);
      } catch {
        throw new Error("The saved state is not valid JSON");
      }
    }
    if (hook === "reply")
      context.text = typeof request.text === "string" ? request.text : "";

    const module = { exports: {} };
    compileModule(String(request.source)).call(module.exports, module, module.exports);
    const exports = module.exports ?? {};

    // An export that is not a function is taken as the hook's value (prompt: "Be brief.").
    const handler = exports[exported];
    const value = isFunction(handler) ? handler.call(exports, context, context.text) : handler;
    if (value !== null && typeof value === "object" && isFunction(value.then)) {
      value.then((settled) => finish(exports, hook, exported, settled),
                 (error) => { answer = failure(error); });
    } else {
      finish(exports, hook, exported, value);
    }
  } catch (error) {
    answer = failure(error);
  }
  return () => answer;
})
)js";
