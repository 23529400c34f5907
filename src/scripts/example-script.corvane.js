// Example Script: a study companion that uses every hook a script can have.
// Copy it, rename it and change it freely.
//
// A script is a CommonJS module: what you put on module.exports is what Corvane sees.
// Every hook gets one argument, the context of the chat:
//   turn          how many messages you have sent, including the one being answered
//   agent.name    the assistant's name;  chat.title, chat.id
//   messages      [{ role, text, display, hidden, data, createdAt }, ...], oldest first
//   trigger       "user", "reply" or "tick": why the script runs
//   partial       true while a reply is still streaming
//   now           the time, like "2026-11-15T20:21:57Z";  idle_seconds since the last message
//   state         what this script saved last time in this chat (absent at first)
// Only plain JavaScript is available: no files, no network, no timers. A run must finish
// within 2 seconds.

module.exports = {
  // The title shown in Scripts and given to chats started from this script.
  name: "Example Script",

  // The assistant's name in chats that use this script.
  agentName: "Sage",

  // Call onTick every 10 minutes while this chat is open (10 to 86400 seconds).
  tickEvery: 600,

  // Runs before each reply. Return text to add to the system prompt, or an object with
  // prompt and any of temperature (0 to 1.5), max_tokens (64 to 8192), agent_name, state.
  prompt({ agent, turn, trigger, state }) {
    const topics = state?.topics ?? [];
    const lines = [
      `You are ${agent.name}, a patient study companion.`,
      "Explain one idea at a time, put its name in **bold**, and end with a short question.",
    ];
    if (topics.length > 0)
      lines.push(`Topics covered so far: ${topics.join(", ")}.`);
    return {
      prompt: lines.join("\n"),
      // Warmer at the start, more focused once the conversation is going.
      temperature: turn <= 2 ? 0.8 : 0.5,
      max_tokens: 1024,
      // You wrote something yourself: a new quiet spell may bring a new quiz.
      state: trigger === "user" ? { ...state, quizzed: false } : state,
    };
  },

  // Runs after each reply is saved, and while it streams (partial is then true).
  // text is the reply; display is shown in its place, data is kept with the message.
  onReply({ partial, state }, text) {
    if (partial)
      return {}; // show the streaming text as it is
    const topic = text.match(/\*\*([^*\n]{3,40})\*\*/)?.[1];
    const topics = state?.topics ?? [];
    if (topic && !topics.includes(topic))
      topics.push(topic);
    const replies = (state?.replies ?? 0) + 1;
    return {
      display: topic ? `${text}\n\n(Reply ${replies}, about ${topic})` : text,
      data: { topic: topic ?? null, replies },
      state: { ...state, topics: topics.slice(-10), replies },
    };
  },

  // Runs on the timer. It may add messages (inject), ask the assistant to answer them
  // (respond), and say when it wants to run next (next, 10 to 86400 seconds).
  onTick({ idle_seconds, state }) {
    const topics = state?.topics ?? [];
    // Only after half an hour of quiet, and once per quiet spell.
    if (idle_seconds < 1800 || topics.length === 0 || state?.quizzed)
      return {};
    const topic = topics[Math.floor(Math.random() * topics.length)];
    return {
      inject: [{ role: "user", text: `Quiz me with one short question about ${topic}.` }],
      respond: true,
      state: { ...state, quizzed: true },
      next: 3600, // then leave it for an hour
    };
  },

  // Corvane asks "info" when the chat opens, to learn tickEvery and whether onReply exists.
  // It works that out from the exports above; export info() only to decide at run time:
  //   info: ({ chat }) => ({ tick_every: chat.title.includes("exam") ? 300 : 900 }),
};
