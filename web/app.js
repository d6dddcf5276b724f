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

// One request; always an envelope, so that a host that is down or answers
// something else is reported like any other failure (code 0).
async function call(api, version, method, params = {}) {
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

// The account service's own sign-in page, for the PKCE flow. Only its path
// is taken from the configuration: the page stays on its own origin.
async function authorizeAtService(endpoint, fields) {
  try {
    const res = await fetch(new URL(endpoint, location.href).pathname, {
      method: 'POST',
      headers: { 'Content-Type': 'application/json' },
      body: JSON.stringify(fields),
    });
    return { status: res.status, body: await res.json() };
  } catch (e) {
    return { status: 0, body: { error: String(e) } };
  }
}

// --- What a person is told -------------------------------------------------

function report(section, kind, text, code, answer) {
  const out = $('.outcome', section);
  out.replaceChildren();
  out.className = `outcome ${kind}`;
  if (!text) return;
  const p = document.createElement('p');
  p.className = 'sentence';
  p.textContent = text;
  if (code !== undefined) {
    const c = document.createElement('span');
    c.className = 'code';
    c.textContent = `code ${code}`;
    p.append(' ', c);
  }
  out.append(p);
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

function failed(section, answer) {
  const code = answer.error ? answer.error.code : 0;
  report(section, 'error', Messages.sentence(code), code, answer);
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
const labelOf = (input) => (input.labels && input.labels[0] ? input.labels[0].textContent.trim() : input.name);

// --- Status ----------------------------------------------------------------

let signedIn = null;
let profile = null;  // the account's values as `get` last answered them

function showSignedIn(state) {
  if (signedIn === state) return;
  signedIn = state;
  $$('.signed-in').forEach((s) => { s.hidden = !state; });
  $$('.signed-out').forEach((s) => { s.hidden = state; });
  profile = null;
  $('#so-refusal').hidden = true;
  $('#pu-table').hidden = true;
  ['#profile', '#purchases', '#signout', '#signin', '#register'].forEach((id) => report($(id), '', ''));
  if (state) loadProfile();
}

async function refreshStatus() {
  const section = $('#status');
  const answer = await call(CENTER, 2, 'query');
  if (!answer.success) {
    $('#st-account').textContent = 'Unknown';
    failed(section, answer);
    return;
  }
  const d = answer.data;
  const on = d.is_logged_in === true;
  $('#st-account').textContent = on ? `Signed in as ${d.account}` : 'Not signed in';
  $('#st-activated').textContent = on ? (d.activated ? 'Yes' : 'Not yet') : '–';
  $('#st-domain').textContent = on && d.critical_version_domain ? d.critical_version_domain : '–';
  $('#st-key').textContent = on && d.auth_key ? d.auth_key : '–';
  if (on && d.auth_key) {
    localStorage.setItem(KEY_STORE, d.auth_key);
    $('#key-key').value = d.auth_key;
  }
  section.dataset.state = on ? 'signed-in' : 'signed-out';
  showSignedIn(on);
}

async function signedInNow(answer) {
  report($('#status'), 'ok', `Signed in as ${answer.data.account}.`);
  $$('#signin input[type=password]').forEach((i) => { i.value = ''; });
  await refreshStatus();
}

// --- Sign-in ---------------------------------------------------------------

function chooseSignInWay(way) {
  $$('#signin form').forEach((f) => { f.hidden = f.dataset.way !== way; });
  report($('#signin'), '', '');
}

onSubmit($('#f-password'), async (form) => {
  const answer = await call(CENTER, 2, 'login', {
    account: field(form, 'account').value.trim(),
    password: field(form, 'password').value,
  });
  if (answer.success) await signedInNow(answer);
  else failed($('#signin'), answer);
});

onSubmit($('#f-key'), async (form) => {
  const answer = await call(CENTER, 2, 'login_by_key', {
    serial: field(form, 'serial').value.trim(),
    auth_key: field(form, 'auth_key').value.trim(),
  });
  if (answer.success) await signedInNow(answer);
  else failed($('#signin'), answer);
});

onSubmit($('#f-token'), async (form) => {
  const answer = await call(CENTER, 2, 'oauth_login', { access_token: field(form, 'access_token').value.trim() });
  if (answer.success) await signedInNow(answer);
  else failed($('#signin'), answer);
});

// The device makes the verifier and keeps it; the page only ever holds its
// challenge, which the account service binds to the grant code.
onSubmit($('#f-pkce'), async (form) => {
  const section = $('#signin');
  const config = await call(LOGIN, 1, 'pkce_config_get');
  if (!config.success) return failed(section, config);
  const login = config.data.login || {};
  const verifier = await call(VERIFIER, 1, 'create');
  if (!verifier.success) return failed(section, verifier);
  const challenge = verifier.data.challenge;
  const grant = await authorizeAtService(login.authorize_endpoint || '/sim/authorize', {
    email: field(form, 'email').value.trim(),
    password: field(form, 'password').value,
    code_challenge: challenge,
    code_challenge_method: 'S256',
    client_id: login.client_id,
    redirect_uri: login.redirect_uri,
  });
  if (grant.status !== 200) {
    const code = grant.status ? Messages.codeOfAccountError(grant.body.account_error) : 0;
    return report(section, 'error', Messages.sentence(code), code, grant.body);
  }
  const answer = await call(LOGIN, 1, 'pkce_login', {
    code_challenge: challenge,
    grant_code: grant.body.grant_code,
    client_id: login.client_id,
    token_endpoint: login.token_endpoint,
    redirect_uri: login.redirect_uri,
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
    await refreshStatus();
  } else {
    report(section, 'ok', `Account ${params.account} created. Sign in with it to use it on this device.`);
    $('#pw-email').value = params.account;
  }
});

// --- Profile ---------------------------------------------------------------

const TEXT_FIELDS = ['full_name', 'email', 'country', 'notify_language', 'critical_version_list'];
const FLAGS = ['critical_release', 'enews', 'enews_local_promotion'];

async function loadProfile() {
  const section = $('#profile');
  const form = $('#f-profile');
  const answer = await call(ACCOUNT, 1, 'get');
  if (!answer.success) return failed(section, answer);
  if (answer.data.is_logged_in === false) return refreshStatus();
  profile = answer.data;
  for (const name of TEXT_FIELDS) field(form, name).value = profile[name] == null ? '' : String(profile[name]);
  for (const name of FLAGS) field(form, name).checked = profile[name] === true;
  field(form, 'current_password').value = '';
  field(form, 'new_password').value = '';
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
  if (!profile) return loadProfile();
  const changes = profileChanges(form);
  const names = Object.keys(changes).filter((n) => n !== 'current_password');
  if (names.length === 0) return report(section, 'info', 'Nothing to save: no field was changed.');
  const answer = await call(ACCOUNT, 1, 'set', changes);
  if (!answer.success) return failed(section, answer);
  const what = names.map((n) => labelOf(field(form, n))).join(', ');
  await loadProfile();
  report(section, 'ok', `Saved: ${what}.`);
  if ('email' in changes) await refreshStatus();
});

$('#pr-reload').addEventListener('click', () => busy($('#profile'), async () => {
  await loadProfile();
  report($('#profile'), '', '');
}));

// --- Purchases -------------------------------------------------------------

onSubmit($('#f-purchases'), async (form) => {
  const section = $('#purchases');
  const table = $('#pu-table');
  const params = {};
  for (const name of ['date_from', 'date_to']) if (field(form, name).value) params[name] = field(form, name).value;
  const answer = await call(PURCHASE, 1, 'list', params);
  if (!answer.success) {
    table.hidden = true;
    return failed(section, answer);
  }
  const list = answer.data.purchases || [];
  const body = $('tbody', table);
  body.replaceChildren(...list.map((p) => {
    const row = document.createElement('tr');
    for (const [text, cls] of [[p.date], [p.name || p.app], [p.serial, 'mono'], [`${p.price} ${p.currency}`, 'num']]) {
      const cell = document.createElement('td');
      cell.textContent = text == null ? '' : text;
      if (cls) cell.className = cls;
      row.append(cell);
    }
    return row;
  }));
  table.hidden = list.length === 0;
  report(section, 'info', list.length === 0 ? 'No purchases in these dates.'
    : list.length === 1 ? '1 purchase.' : `${list.length} purchases.`);
});

// --- Sign-out --------------------------------------------------------------

// The device checks in two grades: a hard refusal stands, a soft one may be
// overridden by the person. Reasons of the hard grade are listed first.
function showRefusal(answer) {
  const details = answer.error.details || {};
  const grade = details.check_type === 'hard' ? 'hard' : 'soft';
  const reasons = (Array.isArray(details.reasons) ? details.reasons : [])
    .map((r) => (typeof r === 'string' ? { grade, text: r } : { grade: r.check_type || r.type || grade, text: r.reason || r.text || '' }))
    .sort((a, b) => (a.grade === 'hard' ? 0 : 1) - (b.grade === 'hard' ? 0 : 1));
  const box = $('#so-refusal');
  box.dataset.grade = grade;
  $('.refusal-title', box).textContent = grade === 'hard'
    ? 'Refused by the hard check: the device cannot sign out until these end.'
    : 'Refused by the soft check: signing out now would interrupt these.';
  $('.reasons', box).replaceChildren(...reasons.map((r) => {
    const item = document.createElement('li');
    item.textContent = r.text || 'No reason given.';
    item.dataset.grade = r.grade;
    return item;
  }));
  $('#so-force').hidden = grade !== 'soft';
  box.hidden = false;
  report($('#signout'), 'error', Messages.sentence(3014), 3014, answer);
}

async function signOut(force) {
  const answer = await call(CENTER, 2, 'logout', force ? { force: true } : {});
  if (answer.success) {
    $('#so-refusal').hidden = true;
    report($('#status'), 'ok', 'Signed out.');
    await refreshStatus();
  } else if (answer.error.code === 3014) {
    showRefusal(answer);
  } else {
    failed($('#signout'), answer);
  }
}

$('#so-go').addEventListener('click', () => busy($('#signout'), () => signOut(false)));
$('#so-force').addEventListener('click', () => busy($('#signout'), () => signOut(true)));

// --- Start -----------------------------------------------------------------

$$('input[name=signin-way]').forEach((r) => r.addEventListener('change', () => chooseSignInWay(r.value)));
$$('#f-register input[name=version]').forEach((r) => r.addEventListener('change', () => {
  $('#f-register .v2-only').hidden = registerVersion() !== 2;
}));
$('#refresh').addEventListener('click', () => busy($('#status'), async () => {
  report($('#status'), '', '');
  await refreshStatus();
  if (signedIn) await loadProfile();
}));
// A reload may restore the choices of the radio buttons.
chooseSignInWay($('input[name=signin-way]:checked').value);
$('#f-register .v2-only').hidden = registerVersion() !== 2;
$('#key-key').value = localStorage.getItem(KEY_STORE) || '';
refreshStatus();
