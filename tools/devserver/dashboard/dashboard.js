// The devserver dashboard: polls, live results, devices and push, over the admin API.
'use strict';

const state = { polls: [], selected: null, app: '' };
const $ = (selector) => document.querySelector(selector);

function el(tag, attributes = {}, ...children) {
  const node = document.createElement(tag);
  for (const [key, value] of Object.entries(attributes)) {
    if (key === 'class') node.className = value;
    else if (key.startsWith('on')) node.addEventListener(key.slice(2), value);
    else node.setAttribute(key, value);
  }
  for (const child of children) node.append(child);
  return node;
}

// Every call carries the admin cookie (same origin); writes go as JSON, which the server needs.
async function api(method, path, body) {
  const options = { method, headers: {}, credentials: 'same-origin' };
  if (method !== 'GET') options.headers['Content-Type'] = 'application/json';
  if (body !== undefined) options.body = JSON.stringify(body);
  const response = await fetch(path, options);
  const data = await response.json().catch(() => ({}));
  if (!response.ok) throw new Error(data.error || `HTTP ${response.status}`);
  return data;
}

function toast(text, bad = false) {
  const node = $('#toast');
  node.textContent = text;
  node.className = 'toast show' + (bad ? ' bad' : '');
  clearTimeout(toast.timer);
  toast.timer = setTimeout(() => { node.className = 'toast'; }, 3000);
}

function time(iso) {
  return iso ? new Date(iso).toLocaleString() : '—';
}

function addOptionRow(text = '', link = '') {
  const row = el('div', { class: 'option-row' },
    el('input', { class: 'option-text', placeholder: 'Option text', value: text }),
    el('input', { class: 'option-link', placeholder: 'Link (optional)', value: link }),
    el('button', { type: 'button', class: 'icon', title: 'Remove',
      onclick: () => { if ($('#options').querySelectorAll('.option-row').length > 1) row.remove(); } }, '✕'));
  $('#options').append(row);
}

async function createPoll(event) {
  event.preventDefault();
  $('#form-error').textContent = '';
  const options = [...document.querySelectorAll('.option-row')]
    .map((row) => ({ text: row.querySelector('.option-text').value.trim(),
      link: row.querySelector('.option-link').value.trim() || null }))
    .filter((option) => option.text);
  try {
    const poll = await api('POST', '/admin/polls', {
      app_token: $('#app-token').value.trim(), question: $('#question').value.trim(),
      options, category: $('#category').value });
    $('#question').value = '';
    $('#options').querySelectorAll('.option-row').forEach((row) => row.remove());
    addOptionRow(); addOptionRow();
    state.selected = poll.id;
    await refreshPolls();
  } catch (error) {
    $('#form-error').textContent = error.message;
  }
}

async function refreshPolls() {
  const query = state.app ? `?app=${encodeURIComponent(state.app)}` : '';
  const [{ polls }, all] = await Promise.all([api('GET', '/admin/polls' + query),
    state.app ? api('GET', '/admin/polls') : null]);
  state.polls = polls;
  renderAppFilter((all ? all.polls : polls).map((poll) => poll.app_token));
  const list = $('#polls');
  list.replaceChildren();
  if (!polls.length) list.append(el('li', { class: 'empty' }, 'No polls yet.'));
  for (const poll of [...polls].reverse()) {
    list.append(el('li', { 'data-poll-id': poll.id, class: poll.id === state.selected ? 'selected' : '' },
      el('div', { class: 'app' }, poll.app_token),
      el('div', { class: 'question', onclick: () => select(poll.id) }, poll.question),
      el('div', { class: 'meta' },
        el('span', { class: 'count' }, `${poll.reply_count} ${poll.reply_count === 1 ? 'reply' : 'replies'}`),
        el('button', { class: 'small secondary push', onclick: () => push(poll) }, 'Push'),
        el('button', { class: 'small danger delete', onclick: () => remove(poll) }, 'Delete'))));
  }
  if (state.selected && !polls.some((poll) => poll.id === state.selected)) state.selected = null;
  await Promise.all([refreshResults(), refreshDevices()]);
}

function renderAppFilter(apps) {
  const select = $('#app-filter');
  const known = new Set([...select.options].map((option) => option.value));
  for (const app of new Set(apps)) {
    if (!known.has(app)) select.append(el('option', { value: app }, app));
  }
}

function select(id) {
  state.selected = id;
  document.querySelectorAll('#polls li').forEach((li) =>
    li.classList.toggle('selected', Number(li.dataset.pollId) === id));
  refreshResults();
  refreshDevices();
}

// Widths are set through the style object: the page's content security policy refuses inline
// style attributes.
function bar(option, extraClass = '') {
  const fill = el('div', { class: 'fill' });
  fill.style.width = `${option.percent}%`;
  return el('div', { class: 'bar ' + extraClass, 'data-option': option.text },
    el('div', { class: 'label' },
      el('span', { class: 'text' }, option.text),
      el('span', { class: 'figures' },
        el('span', { class: 'count' }, String(option.count)), ' · ',
        el('span', { class: 'percent' }, `${option.percent}%`))),
    el('div', { class: 'track' }, fill));
}

async function refreshResults() {
  const panel = $('#results');
  if (!state.selected) {
    panel.replaceChildren(el('p', { class: 'empty' }, 'Choose a poll to see its results.'));
    return;
  }
  const id = state.selected;
  const [results, { replies }] = await Promise.all([
    api('GET', `/admin/polls/${id}/results`), api('GET', `/admin/polls/${id}/replies`)]);
  if (id !== state.selected) return;
  const poll = results.poll;
  const log = el('tbody');
  for (const reply of [...replies].reverse()) {
    log.append(el('tr', {},
      el('td', {}, time(reply.created_at)),
      el('td', { class: 'mono' }, reply.device.push_token),
      el('td', {}, reply.reply_text)));
  }
  if (!replies.length) log.append(el('tr', {}, el('td', { colspan: 3, class: 'empty' }, 'No replies yet.')));
  panel.replaceChildren(el('div', { class: 'results', 'data-poll-id': poll.id },
    el('h2', {}, poll.question),
    el('p', { class: 'sub' }, `${poll.app_token} · ${poll.category} · ${results.answers} answers`),
    ...results.options.map((option) => bar(option)),
    ...results.other.map((option) => bar(option, 'other')),
    el('div', { class: 'apart' },
      el('span', { class: 'dismissals' }, 'Dismissed ', el('strong', {}, String(results.dismissals))),
      el('span', {}, 'Total replies ', el('strong', { class: 'total' }, String(results.total)))),
    el('h3', {}, 'Replies'),
    el('table', { class: 'replies' },
      el('thead', {}, el('tr', {}, el('th', {}, 'Time'), el('th', {}, 'Device'), el('th', {}, 'Reply'))),
      log)));
}

// Refreshed on every call a device makes; only the latest answer is shown, whatever order the
// answers come back in.
async function refreshDevices() {
  const ticket = ++refreshDevices.issued;
  const poll = state.polls.find((candidate) => candidate.id === state.selected);
  const app = state.app || (poll ? poll.app_token : '');
  const { devices } = await api('GET', '/admin/devices' + (app ? `?app=${encodeURIComponent(app)}` : ''));
  if (ticket !== refreshDevices.issued) return;
  $('#devices-app').textContent = app ? `of ${app}` : 'of all apps';
  const body = $('#devices tbody');
  body.replaceChildren();
  if (!devices.length) body.append(el('tr', {}, el('td', { colspan: 5, class: 'empty' }, 'No devices registered.')));
  for (const device of devices) {
    body.append(el(
        'tr', {'data-push-token': device.push_token}, el('td', {class: 'mono'}, device.push_token),
        el('td', {}, device.platform || '—'), el('td', {}, time(device.created_at)),
        el('td', {class: 'last-call'},
           el('time', {datetime: device.last_seen_at || ''}, time(device.last_seen_at))),
        el('td', {}, device.user_info ? el('pre', {}, device.user_info) : '—')));
  }
}
refreshDevices.issued = 0;

async function push(poll) {
  try {
    const answer = await api('POST', `/admin/polls/${poll.id}/push`, {});
    toast(`Pushed to ${answer.sent} of ${answer.devices} devices`);
  } catch (error) {
    toast(`Push failed: ${error.message}`, true);
  }
}

async function remove(poll) {
  if (!confirm(`Delete "${poll.question}" and its replies?`)) return;
  try {
    await api('DELETE', `/admin/polls/${poll.id}`);
    if (state.selected === poll.id) state.selected = null;
    await refreshPolls();
  } catch (error) {
    toast(`Delete failed: ${error.message}`, true);
  }
}

// Server-sent events keep the page current; the browser reconnects by itself.
function listen() {
  const source = new EventSource('/admin/events');
  source.onopen = () => { $('#live').textContent = 'live'; $('#live').classList.add('on'); };
  source.onerror = () => { $('#live').textContent = 'reconnecting…'; $('#live').classList.remove('on'); };
  source.onmessage = (message) => {
    const event = JSON.parse(message.data);
    if (event.type === 'reply') {
      const poll = state.polls.find((candidate) => candidate.id === event.poll_id);
      if (poll) {
        poll.reply_count += 1;
        const count = document.querySelector(`#polls li[data-poll-id="${poll.id}"] .count`);
        if (count) count.textContent = `${poll.reply_count} ${poll.reply_count === 1 ? 'reply' : 'replies'}`;
      }
      if (event.poll_id === state.selected) refreshResults();
    } else if (event.type === 'device') {
      refreshDevices();
    } else {
      refreshPolls();
    }
  };
}

document.addEventListener('DOMContentLoaded', () => {
  if (location.search.includes('token=')) history.replaceState(null, '', '/');
  addOptionRow(); addOptionRow();
  $('#add-option').addEventListener('click', () => addOptionRow());
  $('#poll-form').addEventListener('submit', createPoll);
  $('#app-filter').addEventListener('change', (event) => { state.app = event.target.value; refreshPolls(); });
  listen();
  refreshPolls().catch((error) => toast(error.message, true));
});
