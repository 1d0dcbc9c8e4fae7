// The host TV page. Everything from the TV (titles, bodies, labels, names, log
// lines) reaches the page through textContent only: engine texts carry what
// appliances and their owners typed.
'use strict';

const $ = (id) => document.getElementById(id);

// An element with text and attributes; never markup.
function el(tag, props = {}, children = []) {
  const node = document.createElement(tag);
  for (const [key, value] of Object.entries(props)) {
    if (key === 'text') node.textContent = value;
    else if (key === 'class') node.className = value;
    else if (key.startsWith('data-')) node.setAttribute(key, value);
    else node[key] = value;
  }
  for (const child of children) node.append(child);
  return node;
}

function say(text, isError = false) {
  const box = $('message');
  box.textContent = text;
  box.className = isError ? 'error' : '';
}

// One action of the API; its JSON answer, or null after saying what went wrong.
async function act(path, body = {}) {
  try {
    const res = await fetch(path, {
      method: 'POST',
      headers: { 'Content-Type': 'application/json' },
      body: JSON.stringify(body),
    });
    const answer = await res.json().catch(() => ({ error: `HTTP ${res.status}` }));
    if (!res.ok) {
      say(answer.error || `HTTP ${res.status}`, true);
      return null;
    }
    return answer;
  } catch (e) {
    say(`the page's server does not answer: ${e.message}`, true);
    return null;
  }
}

function launchText(launch) {
  const extra = Object.entries(launch.extraData || {}).map(([k, v]) => `${k}=${v}`).join(' ');
  const what = `${launch.app}${extra ? ' with ' + extra : ''}`;
  return launch.result === 0 ? `launched ${what}` : `launch of ${what} failed (result ${launch.result})`;
}

function activityText(a) {
  if (a.kind === 'press') {
    const label = a.press.label !== null ? `[ ${a.press.label} ] (button ${a.button})` : `button ${a.button}`;
    const launches = a.press.launches.length ? a.press.launches.map(launchText).join('; ') : 'launched nothing';
    return `pressed ${label} of pop-up #${a.item}: the service ${launches}`;
  }
  if (a.kind === 'timeout') return `pop-up #${a.item} timed out`;
  if (a.kind === 'start') return `the page started the service (pid ${a.pid}), scenario ${a.scenario || 'by default'}`;
  if (a.kind === 'event') {
    const o = a.outcome;
    const parts = [`event ${a.number}: the service answered ${o.answer}`];
    for (const r of o.shown) parts.push(`pop-up #${r.item} shown`);
    if (o.powerOff !== null) parts.push(`the TV was switched off (kind ${o.powerOff})`);
    if (o.serviceEnded) parts.push('the service ended');
    return parts.join('; ');
  }
  return a.kind;
}

function yesNo(cell, isYes, yes, no) {
  cell.textContent = isYes ? yes : no;
  cell.className = isYes ? 'yes' : 'no';
}

function renderPopup(p) {
  const row = el('div', { class: 'row' });
  p.buttons.forEach((label, i) => {
    const button = el('button', { type: 'button', class: 'press', 'data-button': String(i) });
    if (p.icons[i]) {
      const icon = el('img', { alt: '', src: `/api/icon?item=${p.item}&button=${i}` });
      icon.addEventListener('error', () => icon.remove());
      button.append(icon);
    }
    button.append(el('span', { text: label === null ? '(no label)' : label }));
    button.addEventListener('click', async () => {
      const answer = await act('/api/press', { item: p.item, button: i });
      if (answer) {
        const launches = answer.launches.length ? answer.launches.map(launchText).join('; ') : 'launched nothing';
        say(`pressed button ${i} of pop-up #${p.item}: the service ${launches}`);
      }
    });
    row.append(button);
  });
  const timeout = el('button', { type: 'button', class: 'link timeout', text: 'let it time out' });
  timeout.addEventListener('click', () => act('/api/timeout', { item: p.item }));
  row.append(timeout);
  return el('div', { class: 'popup', 'data-item': String(p.item) }, [
    el('span', { class: 'item', text: `#${p.item}` }),
    el('div', { class: 'title', text: p.title ?? '' }),
    el('div', { class: 'body', text: p.body ?? '' }),
    ...(p.subText ? [el('div', { class: 'sub', text: p.subText })] : []),
    row,
  ]);
}

function setChoice(select, value) {
  if (value === null || value === undefined) return;
  if (![...select.options].some((o) => o.value === value)) select.append(el('option', { value, text: value }));
  if (document.activeElement !== select) select.value = value;
}

const shown = { popups: '', activity: '' };

function render(state) {
  const s = state.status;
  if (!s || s.error) {
    say(s ? s.error : 'no state', true);
    return;
  }
  $('root').textContent = `TV root ${s.root}`;
  const service = $('service');
  yesNo(service, s.service.running, `running (pid ${s.service.pid})`, 'not running');
  for (const id of ['start', 'scenario-choice']) $(id).hidden = s.service.running;
  $('stop').hidden = !s.service.running;
  yesNo($('engine'), s.engine.started, 'started', 'not started');
  const w = s.widget;
  $('widget').textContent = `${w.app}: ${w.installed ? 'installed' : 'not installed'}, ${w.running ? 'running' : 'closed'}`;
  $('language').textContent = s.language ?? '(not set)';
  setChoice($('language-choice'), s.language);
  $('network').textContent = s.network;
  yesNo($('power'), !s.power.off, 'on', `switched off (power-off request of kind ${s.power.kind})`);

  $('screen').classList.toggle('off', s.power.off);
  $('screen-off').hidden = !s.power.off;
  $('screen-empty').hidden = state.popups.length > 0 || s.power.off;
  $('screen-empty').textContent = s.service.running ? 'Nothing on screen' : 'No service runs on this host TV';
  // Rebuilt only when they changed, so that a button under the pointer stays put.
  const popups = JSON.stringify(state.popups);
  if (popups !== shown.popups) $('popups').replaceChildren(...state.popups.map(renderPopup));
  const activity = JSON.stringify(state.activity);
  if (activity !== shown.activity)
    $('activity').replaceChildren(
      ...state.activity
        .slice()
        .reverse()
        .map((a) => el('li', {}, [el('span', { class: 'time', text: a.time }), el('span', { text: activityText(a) })])),
    );
  Object.assign(shown, { popups, activity });
}

// ---- the log ---------------------------------------------------------------

const kLevels = 'VDIWEF';
const kMaxLogLines = 2000;
const logLines = [];

function logVisible(line) {
  const filter = $('log-filter').value.toLowerCase();
  return (
    kLevels.indexOf(line.level) >= kLevels.indexOf($('log-level').value) &&
    (!filter || `${line.tag} ${line.text}`.toLowerCase().includes(filter))
  );
}

function logRow(line) {
  const row = el('div', { class: line.level }, [
    el('span', { class: 'stamp', text: line.stamp }),
    el('span', { class: 'lv', text: line.level }),
    el('span', { class: 'tag', text: `${line.tag}(${line.pid}):` }),
    el('span', { text: line.text }),
  ]);
  row.hidden = !logVisible(line);
  line.row = row;
  return row;
}

function addLog(chunk) {
  const box = $('log');
  if (chunk.restarted) {
    logLines.length = 0;
    box.replaceChildren();
  }
  for (const line of chunk.lines) {
    logLines.push(line);
    box.append(logRow(line));
  }
  while (logLines.length > kMaxLogLines) logLines.shift().row.remove();
  if ($('log-follow').checked) box.scrollTop = box.scrollHeight;
}

function refilterLog() {
  for (const line of logLines) line.row.hidden = !logVisible(line);
  if ($('log-follow').checked) $('log').scrollTop = $('log').scrollHeight;
}

// ---- set-up ----------------------------------------------------------------

async function setUp() {
  const info = await (await fetch('/api/info')).json();

  const language = $('language-choice');
  for (const l of info.languages)
    language.append(el('option', { value: l.value, text: `${l.value} (catalogue ${l.catalogue})` }));
  language.addEventListener('change', () => act('/api/language', { language: language.value }));

  const network = $('network-choice');
  network.append(el('option', { value: '', text: 'switch to…' }));
  for (const n of info.networks) network.append(el('option', { value: n, text: n === 'auto' ? 'auto (this machine)' : n }));
  network.addEventListener('change', async () => {
    if (network.value) await act('/api/network', { network: network.value });
    network.value = '';
  });

  for (const button of document.querySelectorAll('[data-widget]'))
    button.addEventListener('click', () => act('/api/widget', { action: button.dataset.widget }));
  const scenario = $('scenario-choice');
  for (const sc of info.scenarios)
    scenario.append(el('option', { value: sc.name, text: sc.name, title: sc.what }));
  scenario.value = info.defaultScenario;
  $('start').addEventListener('click', async () => {
    const answer = await act('/api/start', { scenario: scenario.value });
    if (answer) say(`started the service (pid ${answer.pid}) with scenario ${scenario.value}`);
  });
  $('stop').addEventListener('click', async () => {
    say('stopping the service: its watchdog timer may take up to 6 s');
    if (await act('/api/stop')) say('the service ended');
  });
  $('reset').addEventListener('click', async () => {
    if (await act('/api/reset')) say('fresh host TV');
  });

  const kind = $('event-kind');
  for (const e of info.events)
    kind.append(el('option', { value: String(e.number), text: `${e.number} ${e.sample}`, title: e.what }));
  kind.append(el('option', { value: '', text: 'another number' }));
  const describe = () => {
    const e = info.events.find((x) => String(x.number) === kind.value);
    $('event-help').textContent = e ? e.what : 'the service does nothing for other numbers';
  };
  kind.addEventListener('change', () => {
    $('event-number').value = kind.value;
    describe();
  });
  $('event-number').value = kind.value;
  describe();
  $('event-number').addEventListener('input', () => {
    kind.value = info.events.some((x) => String(x.number) === $('event-number').value) ? $('event-number').value : '';
    describe();
  });
  $('event-source').addEventListener('change', () => {
    $('event-text').hidden = $('event-source').value !== 'text';
  });
  $('event-form').addEventListener('submit', async (event) => {
    event.preventDefault();
    const number = Number($('event-number').value);
    const body = { number };
    if ($('event-source').value === 'text') body.text = $('event-text').value;
    else {
      const e = info.events.find((x) => x.number === number);
      if (!e) return say(`no shipped sample for event ${number}: give your own text`, true);
      body.sample = e.sample;
    }
    const answer = await act('/api/event', body);
    if (answer) say(activityText({ kind: 'event', number, outcome: answer }));
  });

  $('log-level').addEventListener('change', refilterLog);
  $('log-filter').addEventListener('input', refilterLog);
  $('log-note').textContent = `kept in ${info.log} by a service that lumora-tv run, web --run or Start above began`;

  connect();
}

// The event stream. A page over the server's cap is refused (503) and an
// EventSource does not retry that: this page says why and asks the server
// every few seconds until a place is free.
function connect() {
  const link = $('link');
  const stream = new EventSource('/api/events');
  stream.addEventListener('state', (e) => render(JSON.parse(e.data)));
  stream.addEventListener('log', (e) => addLog(JSON.parse(e.data)));
  stream.addEventListener('open', () => {
    link.textContent = 'live';
    link.className = 'pill on';
  });
  stream.addEventListener('error', () => {
    link.className = 'pill off';
    if (stream.readyState !== EventSource.CLOSED) {
      link.textContent = 'reconnecting…';
      return;
    }
    stream.close();
    waitForPlace();
  });
}

async function waitForPlace() {
  const link = $('link');
  try {
    const pages = await (await fetch('/api/pages')).json();
    if (pages.open < pages.max) {
      say('');
      connect();
      return;
    }
    link.textContent = 'refused: too many pages';
    say(`this server shows at most ${pages.max} pages at once and all are open; close one: this page connects when a place frees`, true);
  } catch (e) {
    link.textContent = 'reconnecting…';
  }
  setTimeout(waitForPlace, 2000);
}

setUp().catch((e) => say(`cannot set up the page: ${e.message}`, true));
