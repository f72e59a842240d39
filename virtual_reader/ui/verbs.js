// Verbs to the virtual reader.

// Returns the answer, or throws an Error with the reader's words.
export async function execute(verb) {
  const answer = await fetch('execute', { method: 'POST', body: verb, keepalive: true });
  const text = (await answer.text()).trimEnd();
  if (!answer.ok) throw new Error(text);
  return text;
}

// The same for a control, in whose group an error is shown. Returns undefined then. Verbs are
// executed in the order of the calls, but a slow one delays the next only for a moment.
let before = Promise.resolve();
export async function act(verb, control) {
  const answered = before.then(() => execute(verb)).catch((error) => error);
  const moment = before.then(() => new Promise((pass) => { setTimeout(pass, 500); }));
  before = Promise.race([answered, moment]);
  const answer = await answered;
  const group = control.closest('.controls');
  if (group) group.querySelector('.error').textContent = answer.message ?? '';
  return answer.message === undefined ? answer : undefined;
}

export const quoted = (text) => `"${text.replace(/[\\"]/g, '\\$&')}"`;
