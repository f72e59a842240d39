// Verbs to the virtual reader.
import { element } from './page.js';

// Returns the answer, or throws an Error with the reader's words.
export async function execute(verb) {
  const answer = await fetch('execute', { method: 'POST', body: verb });
  const text = (await answer.text()).trimEnd();
  if (!answer.ok) throw new Error(text);
  return text;
}

// The same for a control, beside which an error is shown. Returns undefined then.
export async function act(verb, control) {
  const group = control.closest('.controls');
  group.querySelector('.error')?.remove();
  return execute(verb).catch(({ message }) => {
    group.append(element('p', { className: 'error', role: 'alert' }, message));
  });
}

export const quoted = (text) => `"${text.replace(/[\\"]/g, '\\$&')}"`;
