// The administration page. Everything it does goes through the device's web
// API at /webapi/entry, as the device's own interface would; only the PKCE
// sign-in also visits the account service's sign-in page, which is where a
// person gives the service their password in that flow.
'use strict';

const ENTRY = '/webapi/entry';
const CENTER = 'TALV.Core.PellixCenter';
const ACCOUNT = 'TALV.Core.PellixCenter.Account';
const PURCHASE = 'TALV.Core.PellixCenter.Purchase';
const LOGIN = 'TALV.Core.PellixCenter.Login';
const VERIFIER = 'TALV.Remote.Credential.Verifier';
const KEY_STORE = 'pellix.lastSignIn';

const $ = (selector, root = document) => root.querySelector(selector);
const $$ = (selector, root = document) => Array.from(root.querySelectorAll(selector));

/** @import { Params, Key, Answer } from '../docs/webapi' */
/** @typedef {{ success: false, error: { code: 0, details: string } }} NoAnswer */

// One request; always an envelope, so that a host that is down or answers
// something else is reported like any other failure (code 0). Its types are
// those of docs/webapi.d.ts, for the API, version and method it is given.
/**
 * @template {string} A
 * @template {number} V
 * @template {string} M
 * @param {A} api
 * @param {V} version
 * @param {M} method
 * @param {Params<Key<A, V, M>>} params
 * @returns {Promise<Answer<Key<A, V, M>> | NoAnswer>}
 */
async function call(api, version, method, params) {
  let text = '';
  try {
    const res = await fetch(ENTRY, {
      method: 'POST',
      headers: { 'Content-Type': 'application/json' },
      body: JSON.stringify({ ...params, api, version, method }),
    });
    text = await res.text();
    const answer = JSON.parse(text);
    if (answer && typeof answer.success === 'boolean') return answer;
  } catch (e) {
    text = text || String(e);
  }
  return { success: false, error: { code: 0, details: text } };
}

// One request to a path of the host's own (not the web API), which answers
// its JSON when it succeeds. Only the path is taken from `url`: the page
// stays on its own origin. The answer is made an envelope like the web
// API's: a refusal of the host as it is, another error as `otherwise` makes
// it, or else as a device that did not answer.
/**
 * @param {string} url
 * @param {string} method
 * @param {object} [body]
 * @param {(answer: any) => object | null} [otherwise] given the parsed body of a refusal
 */
async function atHost(url, method, body, otherwise = () => null) {
  let text = '';
  try {
    const res = await fetch(new URL(url, location.href).pathname, body === undefined ? { method } : {
      method,
      headers: { 'Content-Type': 'application/json' },
      body: JSON.stringify(body),
    });
    text = await res.text();
    const answer = text ? JSON.parse(text) : null;
    if (res.ok) return { success: true, data: answer };
    if (answer && answer.error && typeof answer.error.code === 'number') return answer;
    const made = answer && otherwise(answer);
    if (made) return made;
  } catch (e) {
    text = text || String(e);
  }
  return { success: false, error: { code: 0, details: text } };
}

// The account service's own sign-in page, for the PKCE flow: its account
// error is told as the code the device makes of it.
const authorizeAtService = (endpoint, fields) => atHost(endpoint, 'POST', fields,
  (body) => ({ success: false, error: { code: Messages.codeOfAccountError(body.account_error), details: body } }));

// --- What a person is told -------------------------------------------------

// `said` is a text, or a pair from Messages: what went wrong, what to do.
// `extra` goes between the sentence and the details: what the answer names,
// and what a person can do about it, come before the answer itself.
function report(section, kind, said, code, answer, extra) {
  const out = $('.outcome', section);
  out.replaceChildren();
  out.className = `outcome ${kind}`;
  if (!said) return;
  const p = document.createElement('p');
  p.className = 'sentence';
  if (Array.isArray(said)) {
    const [what, todo] = said.map((text, i) => {
      const span = document.createElement('span');
      span.className = i ? 'todo' : 'what';
      span.textContent = text;
      return span;
    });
    p.append(what, ' ', todo);
  } else {
    p.textContent = said;
  }
  if (code !== undefined) {
    const c = document.createElement('span');
    c.className = 'code';
    c.textContent = `code ${code}`;
    p.append(' ', c);
  }
  out.append(p);
  if (extra) out.append(extra);
  if (answer !== undefined) {
    const details = document.createElement('details');
    const summary = document.createElement('summary');
    summary.textContent = 'Details';
    const pre = document.createElement('pre');
    pre.textContent = JSON.stringify(answer, null, 2);
    details.append(summary, pre);
    out.append(details);
  }
}

// A failure may mean that the device is no longer in the state the page
// shows: one that found no device says so in the status, any other has the
// status asked again (a profile refused finds it signed out). A sign-in or
// registration refused with 3010 finds an account signed in elsewhere: the
// section that would tell it goes with that, so the status tells it.
function failed(section, answer, context) {
  const code = answer.error ? answer.error.code : 0;
  if (code === 3010) {
    report($('#status'), 'error', Messages.of(code, context), code, answer);
    refreshStatus(true);
    return;
  }
  report(section, 'error', Messages.of(code, context), code, answer);
  if (code === 0) statusUnknown();
  else refreshStatus();
}

// A section does one thing at a time; a second Enter while a request runs
// is ignored rather than sent twice.
async function busy(section, work) {
  if (section.getAttribute('aria-busy') === 'true') return;
  section.setAttribute('aria-busy', 'true');
  try {
    await work();
  } finally {
    section.removeAttribute('aria-busy');
  }
}

function onSubmit(form, work) {
  form.addEventListener('submit', (event) => {
    event.preventDefault();
    busy(form.closest('section'), () => work(form));
  });
}

const field = (form, name) => form.elements.namedItem(name);
// A field's name as its label shows it, without what the label adds in
// brackets ("Password (6 to 128 bytes)" is "Password").
const labelOf = (input) => (input.labels && input.labels[0]
  ? input.labels[0].textContent.replace(/\(.*\)/, '').trim() : input.name);

// --- What the page checks itself --------------------------------------------

// The account service's rules as the fields carry them: required, type=email
// and data-bytes="min max" (in UTF-8 bytes, as the service counts).
const EMAIL = /^[^\s@]+@[^\s@.]+(\.[^\s@.]+)+$/;
const bytes = (text) => new TextEncoder().encode(text).length;

function fieldFault(input) {
  const name = labelOf(input);
  const value = input.type === 'password' ? input.value : input.value.trim();
  const number = () => Messages.field.number(name, input.min, input.max);
  if (input.validity.badInput) return input.type === 'number' ? number() : Messages.field.date(name);
  if (!value) return input.required ? Messages.field.missing(name) : null;
  if (input.type === 'number' && !input.validity.valid) return number();
  if (input.type === 'email' && !EMAIL.test(value)) return Messages.field.email(name);
  if (input.dataset.bytes) {
    const [min, max] = input.dataset.bytes.split(' ').map(Number);
    const size = bytes(value);
    if (size < min || size > max) return Messages.field.bytes(name, min, max, size);
  }
  return null;
}

// The first fault among the shown fields of `form` (only those named in
// `names`, if given), told in the form's section with the field marked and
// focused; true when there was one. Nothing is sent then.
function refuseFaults(form, names) {
  for (const input of form.elements) {
    if (!(input instanceof HTMLInputElement) || input.closest('[hidden]')) continue;
    if (names && !names.includes(input.name)) continue;
    const fault = fieldFault(input);
    if (fault) return markFault(form, input, fault);
  }
  return false;
}

function markFault(form, input, fault) {
  input.setAttribute('aria-invalid', 'true');
  input.focus();
  report(form.closest('section'), 'error', fault);
  return true;
}

// --- Status ----------------------------------------------------------------

let signedIn = null;  // as the device last told; null before it has
let profile = null;  // the account's values as `get` last answered them
let statusAsked = 0;  // the number of the latest query; older answers are stale

// Every section of one state shows, those of the other hide and forget what
// they showed: nothing of one account is left for the next to see.
function showSignedIn(state) {
  if (signedIn === state) return;
  signedIn = state;
  $$('.signed-in').forEach((s) => { s.hidden = !state; });
  $$('.signed-out').forEach((s) => { s.hidden = state; });
  profile = null;
  $('#f-profile').reset();
  profileReady(false);
  $('#pu-table').hidden = true;
  $('#pu-table tbody').replaceChildren();
  ['#profile', '#purchases', '#signout', '#signin', '#register'].forEach((id) => report($(id), '', ''));
  if (state) busy($('#profile'), loadProfile);
  // The purchases come with the status; "List" asks again, for other dates.
  if (state) $('#f-purchases').requestSubmit();
}

// The device did not answer, or could not tell: what the status showed may no
// longer hold, so none of it stays. The sections stay as they are, with what
// the person typed.
function statusUnknown(code = 0) {
  $('#status').dataset.state = 'unknown';
  $('#st-account').textContent = code === 0 ? 'Not known: the device did not answer' : 'Not known: the device could not tell';
  ['#st-activated', '#st-domain', '#st-key'].forEach((id) => { $(id).textContent = '–'; });
}

// `expected` is the state a request of this page has just made (undefined:
// none); another change was made elsewhere, and the person is told so.
async function refreshStatus(expected) {
  const section = $('#status');
  const asked = ++statusAsked;
  // What the device answers may have used up a condition of the service.
  if (simPanel.open) listConditions();
  const answer = await call(CENTER, 2, 'query', {});
  if (asked !== statusAsked) return;
  if (!answer.success) {
    const code = answer.error ? answer.error.code : 0;
    statusUnknown(code);
    report(section, 'error', Messages.of(code), code, answer);
    return;
  }
  const d = answer.data;
  const on = d.is_logged_in === true;
  if (signedIn !== null && on !== signedIn && on !== expected) {
    report(section, 'info', on
      ? `This device was signed in as ${d.account} meanwhile, from another page or program.`
      : 'The account was signed out meanwhile, from another page or program. Sign in again below to go on.');
  } else if (section.dataset.state === 'unknown') {
    report(section, '', '');
  }
  $('#st-account').textContent = on ? `Signed in as ${d.account}` : 'Not signed in';
  $('#st-activated').textContent = on ? (d.activated ? 'Yes' : 'Not yet') : 'Not signed in';
  $('#st-domain').textContent = on && d.critical_version_domain ? d.critical_version_domain : on ? '–' : 'Not signed in';
  showKey(on && d.auth_key ? d.auth_key : on ? '–' : 'Not signed in');
  if (on && d.auth_key) {
    localStorage.setItem(KEY_STORE, d.auth_key);
    $('#key-key').value = d.auth_key;
  }
  section.dataset.state = on ? 'signed-in' : 'signed-out';
  showSignedIn(on);
}

// The key signs the device in from anywhere: it shows only when asked for,
// as a password field would.
function showKey(text) {
  const cell = $('#st-key');
  if (text === '–' || text === 'Not signed in') {
    cell.textContent = text;
    return;
  }
  const show = document.createElement('button');
  show.type = 'button';
  show.className = 'quiet';
  show.textContent = 'Show the key';
  show.addEventListener('click', () => { cell.textContent = text; });
  cell.replaceChildren(show);
}

/** @param {{ data: { account: string } }} answer a sign-in's success */
async function signedInNow(answer) {
  report($('#status'), 'ok', `Signed in as ${answer.data.account}.`);
  $$('#signin input[type=password]').forEach((i) => { i.value = ''; });
  await refreshStatus(true);
}

// The device's serial number, for the key sign-in; the host tells it apart
// from the web API. A host that does not leaves the field to the person.
async function loadDevice() {
  let device = null;
  try {
    const res = await fetch('/device.json');
    if (res.ok) device = await res.json();
  } catch (e) {
    device = null;
  }
  if (!device || typeof device.serial !== 'string' || !device.serial) {
    $('#st-device').textContent = 'Not known: webapi-host serve prints its serial number when it starts';
    return false;
  }
  $('#st-device').textContent = `${device.model || 'Device'}, serial number ${device.serial}`;
  const serial = $('#key-serial');
  if (!serial.value) serial.value = device.serial;
  return true;
}
let deviceKnown = false;

// --- Sign-in ---------------------------------------------------------------

function chooseSignInWay(way) {
  $$('#signin form').forEach((f) => { f.hidden = f.dataset.way !== way; });
  report($('#signin'), '', '');
}

onSubmit($('#f-password'), async (form) => {
  if (refuseFaults(form)) return;
  const answer = await call(CENTER, 2, 'login', {
    account: field(form, 'account').value.trim(),
    password: field(form, 'password').value,
  });
  if (answer.success) await signedInNow(answer);
  else failed($('#signin'), answer, 'password');
});

onSubmit($('#f-key'), async (form) => {
  if (refuseFaults(form)) return;
  const answer = await call(CENTER, 2, 'login_by_key', {
    serial: field(form, 'serial').value.trim(),
    auth_key: field(form, 'auth_key').value.trim(),
  });
  if (answer.success) await signedInNow(answer);
  else failed($('#signin'), answer, 'key');
});

onSubmit($('#f-token'), async (form) => {
  if (refuseFaults(form)) return;
  const answer = await call(CENTER, 2, 'oauth_login', { access_token: field(form, 'access_token').value.trim() });
  if (answer.success) await signedInNow(answer);
  else failed($('#signin'), answer, 'token');
});

// The device makes the verifier and keeps it; the page only ever holds its
// challenge, which the account service binds to the grant code.
onSubmit($('#f-pkce'), async (form) => {
  const section = $('#signin');
  if (refuseFaults(form)) return;
  const config = await call(LOGIN, 1, 'pkce_config_get', {});
  if (!config.success) return failed(section, config);
  const login = config.data.login || {};
  // Settings that a sign-in needs and the device lacks are told, not sent
  // as nothing.
  const { client_id, redirect_uri, token_endpoint } = login;
  if (!client_id || !redirect_uri || !token_endpoint) {
    const lacking = Object.entries({ client_id, redirect_uri, token_endpoint }).filter(([, v]) => !v).map(([k]) => k);
    return report(section, 'error', Messages.pkceSettings(lacking), undefined, config);
  }
  const verifier = await call(VERIFIER, 1, 'create', {});
  if (!verifier.success) return failed(section, verifier);
  const challenge = verifier.data.challenge;
  const grant = await authorizeAtService(login.authorize_endpoint || '/sim/authorize', {
    email: field(form, 'email').value.trim(),
    password: field(form, 'password').value,
    code_challenge: challenge,
    code_challenge_method: 'S256',
    client_id,
    redirect_uri,
  });
  if (!grant.success) return failed(section, grant, 'pkce');
  const answer = await call(LOGIN, 1, 'pkce_login', {
    code_challenge: challenge,
    grant_code: grant.data.grant_code,
    client_id,
    token_endpoint,
    redirect_uri,
  });
  if (answer.success) await signedInNow(answer);
  else failed(section, answer);
});

// --- Registration ----------------------------------------------------------

function registerVersion() {
  return Number($('#f-register input[name=version]:checked').value);
}

onSubmit($('#f-register'), async (form) => {
  const section = $('#register');
  if (refuseFaults(form)) return;
  const params = {
    account: field(form, 'account').value.trim(),
    fullname: field(form, 'fullname').value.trim(),
    password: field(form, 'password').value,
  };
  const version = registerVersion();
  if (version === 2) {
    for (const flag of ['critical_release', 'enews', 'enews_local_promotion']) params[flag] = field(form, flag).checked;
    const country = field(form, 'country').value.trim();
    if (country) params.country = country;
  }
  const answer = await call(CENTER, version, 'register', params);
  if (!answer.success) return failed(section, answer);
  form.reset();
  $('#f-register .v2-only').hidden = registerVersion() !== 2;
  if (version === 2) {
    report($('#status'), 'ok', `Account ${params.account} created; this device is signed in with it.`);
    await refreshStatus(true);
  } else {
    report(section, 'ok', `Account ${params.account} created. Sign in with it to use it on this device.`);
    $('#pw-email').value = params.account;
  }
});

// --- Profile ---------------------------------------------------------------

const TEXT_FIELDS = ['full_name', 'email', 'country', 'notify_language', 'critical_version_list'];
const FLAGS = ['critical_release', 'enews', 'enews_local_promotion'];

// Until the account's values are in, the form can be neither edited nor
// saved: what it would send is measured against them.
function profileReady(ready) {
  for (const control of $('#f-profile').elements) if (control.id !== 'pr-reload') control.disabled = !ready;
}

async function loadProfile() {
  const section = $('#profile');
  const form = $('#f-profile');
  const answer = await call(ACCOUNT, 1, 'get', {});
  if (!answer.success) {
    profile = null;
    profileReady(false);
    return failed(section, answer);
  }
  if ('is_logged_in' in answer.data) return refreshStatus();
  profile = answer.data;
  for (const name of TEXT_FIELDS) field(form, name).value = profile[name] == null ? '' : String(profile[name]);
  for (const name of FLAGS) field(form, name).checked = profile[name] === true;
  field(form, 'current_password').value = '';
  field(form, 'new_password').value = '';
  profileReady(true);
}

// Only what the person changed is sent: a field left alone keeps whatever
// the account service holds, even if it changed elsewhere meanwhile.
function profileChanges(form) {
  const changes = {};
  for (const name of TEXT_FIELDS) {
    const value = field(form, name).value.trim();
    if (value !== (profile[name] == null ? '' : String(profile[name]))) changes[name] = value;
  }
  for (const name of FLAGS) {
    const checked = field(form, name).checked;
    if (checked !== (profile[name] === true)) changes[name] = checked;
  }
  const next = field(form, 'new_password').value;
  if (next) {
    changes.new_password = next;
    changes.current_password = field(form, 'current_password').value;
  }
  return changes;
}

onSubmit($('#f-profile'), async (form) => {
  const section = $('#profile');
  const changes = profileChanges(form);
  const names = Object.keys(changes).filter((n) => n !== 'current_password');
  const current = field(form, 'current_password');
  const next = field(form, 'new_password');
  if (refuseFaults(form, names)) return;
  if (next.value && !current.value) return markFault(form, current, Messages.field.needs(labelOf(current), labelOf(next)));
  if (current.value && !next.value) return markFault(form, next, Messages.field.needs(labelOf(next), labelOf(current)));
  if (names.length === 0) return report(section, 'info', 'Nothing to save: no field was changed.');
  const answer = await call(ACCOUNT, 1, 'set', changes);
  // Here 3004 is a wrong current password, and 3005 an address of another account.
  if (!answer.success) return failed(section, answer, 'profile');
  const what = names.map((n) => labelOf(field(form, n))).join(', ');
  await loadProfile();
  report(section, 'ok', `Saved: ${what}.`);
  if ('email' in changes) await refreshStatus();
});

$('#pr-reload').addEventListener('click', () => busy($('#profile'), async () => {
  report($('#profile'), '', '');
  await loadProfile();
}));

// --- Purchases -------------------------------------------------------------

onSubmit($('#f-purchases'), async (form) => {
  const section = $('#purchases');
  const table = $('#pu-table');
  if (refuseFaults(form)) return;
  const from = field(form, 'date_from');
  const to = field(form, 'date_to');
  if (from.value && to.value && from.value > to.value) return markFault(form, to, Messages.field.order(labelOf(from), labelOf(to)));
  const params = {};
  for (const input of [from, to]) if (input.value) params[input.name] = input.value;
  // The list shown is of the dates asked before; it goes whatever the answer.
  table.hidden = true;
  const answer = await call(PURCHASE, 1, 'list', params);
  if (!answer.success) return failed(section, answer);
  const list = answer.data.purchases || [];
  const body = $('tbody', table);
  // Each cell carries its column's name, which a narrow screen shows beside
  // it instead of the header row.
  const heads = $$('thead th', table).map((th) => th.textContent);
  body.replaceChildren(...list.map((p) => {
    const row = document.createElement('tr');
    const cells = [[p.date], [p.name || p.app], [p.serial, 'mono'], [[p.price, p.currency].filter((x) => x != null).join(' '), 'num']];
    cells.forEach(([text, cls], i) => {
      const cell = document.createElement('td');
      cell.textContent = text == null ? '' : text;
      cell.dataset.label = heads[i];
      if (cls) cell.className = cls;
      row.append(cell);
    });
    return row;
  }));
  table.hidden = list.length === 0;
  report(section, 'info', list.length === 0 ? 'No purchases in these dates.'
    : list.length === 1 ? '1 purchase.' : `${list.length} purchases.`);
});

// --- Sign-out --------------------------------------------------------------

// The device checks in two grades: a hard refusal stands, a soft one may be
// overridden by the person. Reasons of the hard grade are listed first.
const refusal = $('#so-refusal');  // put into the outcome by report(), between sentence and details

function showRefusal(answer) {
  const details = answer.error.details || {};
  const grade = details.check_type === 'hard' ? 'hard' : 'soft';
  const reasons = (Array.isArray(details.reasons) ? details.reasons : [])
    .map((r) => (typeof r === 'string' ? { grade, text: r } : { grade: r.check_type || r.type || grade, text: r.reason || r.text || '' }))
    .sort((a, b) => (a.grade === 'hard' ? 0 : 1) - (b.grade === 'hard' ? 0 : 1));
  refusal.dataset.grade = grade;
  $('.reasons', refusal).replaceChildren(...reasons.map((r) => {
    const item = document.createElement('li');
    item.textContent = r.text || 'No reason given.';
    item.dataset.grade = r.grade;
    return item;
  }));
  $('#so-force', refusal).hidden = grade !== 'soft';
  refusal.hidden = false;
  report($('#signout'), 'error', Messages.of(3014, grade), 3014, answer, refusal);
}

async function signOut(force) {
  const answer = await call(CENTER, 2, 'logout', force ? { force: true } : {});
  if (answer.success) {
    report($('#status'), 'ok', 'Signed out.');
    await refreshStatus(false);
  } else if (answer.error.code === 3014) {
    showRefusal(answer);
  } else {
    failed($('#signout'), answer);
  }
}

$('#so-go').addEventListener('click', () => busy($('#signout'), () => signOut(false)));
$('#so-force').addEventListener('click', () => busy($('#signout'), () => signOut(true)));

// --- The simulated account service ------------------------------------------

// Not the device's: conditions of the account service this host simulates,
// at the host's /sim/conditions. Each makes the service fail as a real one
// can, and the page then tells what the device answers as it always does.
const CONDITIONS = '/sim/conditions';
const simPanel = $('#sim-panel');
const SIGN_IN_OPERATIONS = ['TALVPELLIXAccountLogin', 'TALVPELLIXAccountLoginByKey', 'TALVPELLIXAccountOauthLogin',
  'AccountPkceService::Login'];
// The account errors a sign-in may be failed with: those with a sentence of
// their own, and 2 for every number the device makes 3000 of.
const SIGN_IN_ERRORS = [1, 2, 4, 5, 14, 15, 16, 17, 18, 25];
let conditionsAsked = 0;

// A condition in the words of what it does; the list shows the host's own
// JSON of it under these, to copy into a script.
function describeCondition(c) {
  const parts = [];
  if (c.unreachable) {
    parts.push('Unreachable: every account operation fails with account error 4, and account.php refuses connections.');
  }
  if (c.delay_ms) parts.push(`Answers ${c.delay_ms / 1000} s late.`);
  if (c.account_error !== undefined) {
    const code = Messages.codeOfAccountError(c.account_error);
    const ops = c.operations ? c.operations.join(', ') : 'every account operation';
    const which = String(c.operations) === String(SIGN_IN_OPERATIONS) ? 'A sign-in' : ops;
    parts.push(`${which} fails with account error ${c.account_error}: "${Messages.of(code)[0]}" (code ${code}).`);
  } else if (c.operations) {
    parts.push(`Only for ${c.operations.join(', ')}.`);
  }
  if (c.pkce_throw) parts.push(`The PKCE service throws error ${c.pkce_throw.code}: ${c.pkce_throw.what}.`);
  if (c.account_php) parts.push(`account.php: ${c.account_php}.`);
  if (c.logout_refusal) parts.push(`The ${c.logout_refusal.grade} check refuses sign-outs: ${c.logout_refusal.reason}`);
  parts.push(c.left === undefined ? 'Until cleared.' : c.left === 1 ? 'Once more.' : `${c.left} more times.`);
  return parts.join(' ');
}

async function listConditions() {
  const asked = ++conditionsAsked;
  const answer = await atHost(CONDITIONS, 'GET');
  if (asked !== conditionsAsked) return;
  if (!answer.success) return report($('#sim'), 'error', Messages.of(answer.error.code), answer.error.code, answer);
  const conditions = (answer.data && answer.data.conditions) || [];
  $('#sim-list').replaceChildren(...conditions.map((c) => {
    const item = document.createElement('li');
    const said = document.createElement('span');
    said.textContent = describeCondition(c);
    const { id, left, ...sent } = c;
    const json = document.createElement('code');
    json.textContent = JSON.stringify(sent);
    const clear = document.createElement('button');
    clear.type = 'button';
    clear.className = 'quiet';
    clear.textContent = 'Clear';
    clear.dataset.id = id;
    item.append(said, json, clear);
    return item;
  }));
  $('#sim-none').hidden = conditions.length > 0;
  $('#sim-clear').hidden = conditions.length === 0;
}

// A change of the conditions; then the status is asked again (an
// unreachable service shows there at once) and the list with it. The panel
// is busy for the change alone: a slow service must not hold up the next.
async function changeConditions(method, path, body, done) {
  await busy($('#sim'), async () => {
    const answer = await atHost(CONDITIONS + path, method, body);
    if (answer.success) report($('#sim'), 'ok', done);
    else report($('#sim'), 'error', Messages.of(answer.error.code), answer.error.code, answer);
  });
  refreshStatus();
}

$('#sim-error').replaceChildren(...SIGN_IN_ERRORS.map((number) => {
  const code = Messages.codeOfAccountError(number);
  const option = document.createElement('option');
  option.value = String(number);
  option.textContent = `${number}${number === 2 ? ' (or any other)' : ''} → code ${code}: ${Messages.of(code)[0]}`;
  return option;
}));
simPanel.addEventListener('toggle', () => { if (simPanel.open) listConditions(); });
$('#sim-list').addEventListener('click', (event) => {
  const id = event.target.dataset.id;
  if (id) changeConditions('DELETE', `/${id}`, undefined, `Condition ${id} cleared.`);
});
$('#sim-clear').addEventListener('click', () => changeConditions('DELETE', '', undefined,
  'Every condition cleared: the service answers normally.'));
$('#sim-unreachable').addEventListener('click', () => changeConditions('POST', '', { unreachable: true },
  'The account service is unreachable until cleared.'));
$('#f-sim-slow').addEventListener('submit', (event) => {
  event.preventDefault();
  const form = event.target;
  if (refuseFaults(form)) return;
  const seconds = Number(field(form, 'seconds').value);
  changeConditions('POST', '', { delay_ms: Math.round(seconds * 1000) },
    `The account service answers ${seconds} s late until cleared.`);
});
$('#f-sim-signin').addEventListener('submit', (event) => {
  event.preventDefault();
  const number = Number(field(event.target, 'account_error').value);
  changeConditions('POST', '', { account_error: number, operations: SIGN_IN_OPERATIONS, times: 1 },
    `The next sign-in, whichever way, fails with account error ${number}.`);
});
$('#f-sim-refusal').addEventListener('submit', (event) => {
  event.preventDefault();
  const form = event.target;
  if (refuseFaults(form)) return;
  const refusal = { grade: field(form, 'grade').value, reason: field(form, 'reason').value.trim() };
  changeConditions('POST', '', { logout_refusal: refusal },
    `The ${refusal.grade} check refuses every sign-out until cleared.`);
});

// --- The host's journal -----------------------------------------------------

// Not the device's either: the requests this host answered, at /sim/journal,
// polled for what is new while the panel is open.
const journalPanel = $('#journal-panel');
let journalLast = 0;
const journalEntries = [];

function journalOutcome(e) {
  if (e.reason !== undefined) return 'refused';
  if (e.answer) return e.answer.success ? 'ok' : 'error';
  return e.status < 400 ? 'ok' : 'error';
}

// A web API request as a curl line, its masked values as they are kept.
function asCurl(e) {
  const body = JSON.stringify({ api: e.call.api, version: e.call.version, method: e.call.method, ...e.call.params });
  const quoted = `'${body.replace(/'/g, "'\\''")}'`;
  return `curl -s ${location.origin}/webapi/entry -H 'Content-Type: application/json' -d ${quoted}`;
}

function showJournal() {
  const method = $('#jn-method').value;
  const outcome = $('#jn-outcome').value;
  const items = journalEntries.filter((e) => (!method || e.method === method) && (!outcome || journalOutcome(e) === outcome))
    .slice().reverse().map((e) => {
      const item = document.createElement('li');
      item.className = journalOutcome(e);
      const more = document.createElement('details');
      const head = document.createElement('summary');
      const what = e.call ? `${e.call.api} ${e.call.version} ${e.call.method}` : e.path;
      const result = e.answer ? (e.answer.success ? 'success' : `code ${e.answer.code}`) : String(e.status);
      head.textContent = `${e.time.slice(11, 23)} ${e.method} ${what}: ${result}, ${e.duration_ms} ms`;
      const shown = document.createElement('pre');
      const parts = e.call ? { params: e.call.params, answer: e.answer, conditions: e.conditions } : { status: e.status };
      if (e.reason !== undefined) parts.reason = e.reason;
      shown.textContent = JSON.stringify(parts, null, 2);
      more.append(head, shown);
      if (e.call) {
        const copy = document.createElement('button');
        copy.type = 'button';
        copy.className = 'quiet';
        copy.textContent = 'Copy as curl';
        copy.addEventListener('click', () => navigator.clipboard.writeText(asCurl(e)));
        more.append(copy);
      }
      item.append(more);
      return item;
    });
  $('#jn-list').replaceChildren(...items);
}

async function pollJournal() {
  if (!journalPanel.open) return;
  try {
    const res = await fetch(`/sim/journal?since=${journalLast}`);
    if (res.ok) {
      const page = await res.json();
      journalEntries.push(...page.entries);
      journalEntries.splice(0, Math.max(0, journalEntries.length - 500));
      journalLast = page.last;
      if (page.entries.length) showJournal();
    }
  } catch (e) {
    // The host is gone: the list stays as it was.
  }
}
journalPanel.addEventListener('toggle', pollJournal);
setInterval(pollJournal, 2000);
['#jn-method', '#jn-outcome'].forEach((id) => $(id).addEventListener('change', showJournal));
$('#jn-clear').addEventListener('click', async () => {
  await fetch('/sim/journal', { method: 'DELETE' });
  journalEntries.length = 0;
  showJournal();
});

// --- Start -----------------------------------------------------------------

$$('input[name=signin-way]').forEach((r) => r.addEventListener('change', () => chooseSignInWay(r.value)));
$$('#f-register input[name=version]').forEach((r) => r.addEventListener('change', () => {
  $('#f-register .v2-only').hidden = registerVersion() !== 2;
}));
// Unsaved edits of the profile stay: only a profile that is not loaded is
// asked for again.
$('#refresh').addEventListener('click', () => busy($('#status'), async () => {
  report($('#status'), '', '');
  if (!deviceKnown) deviceKnown = await loadDevice();
  await refreshStatus();
  if (signedIn && !profile) await busy($('#profile'), loadProfile);
}));
// A field marked wrong is unmarked as soon as it is edited.
document.addEventListener('input', (event) => {
  if (event.target instanceof Element) event.target.removeAttribute('aria-invalid');
});
// A reload may restore the choices of the radio buttons.
chooseSignInWay($('input[name=signin-way]:checked').value);
$('#f-register .v2-only').hidden = registerVersion() !== 2;
$('#key-key').value = localStorage.getItem(KEY_STORE) || '';
loadDevice().then((known) => { deviceKnown = known; });
refreshStatus();
