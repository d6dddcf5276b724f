// Every error code the page can meet, and what a person is told about it.
// This is the only place where codes and faults become words: the rest of
// the page asks Messages.of(code, context) and Messages.field.
//
// Each sentence is a pair: what went wrong, and what to do about it. A
// context (what the person was doing) may tell a code in other words where
// the general ones would mislead.
'use strict';

const Messages = (() => {
  const home = `http://127.0.0.1:${location.port || 80}/`;
  const byCode = {
    // The page's own: the host could not be reached or did not answer JSON.
    0: ['The device did not answer.', 'Check that it is running, then press Refresh.'],
    // The web API host's own answers.
    100: ['The device failed while answering.', "Try again; if it fails again, look at the host's log."],
    101: ['The device did not understand the request.', 'Reload the page and try again.'],
    102: ['The device does not offer this function.', 'Reload the page: it may not match the software of the device.'],
    103: ['The device does not offer this function.', 'Reload the page: it may not match the software of the device.'],
    104: ['The device does not offer this version of the function.',
      'Reload the page: it may not match the software of the device.'],
    105: ['You are not allowed to do this.', "Ask the device's administrator to do it."],
    106: ['The request is too large.', 'Shorten the longest entry and try again.'],
    107: ['The sign-in took too long.', 'Start it again.'],
    108: ['The device refuses requests from this page: it was opened under another name, or from a page of another site.',
      `Open ${home} on the computer that runs the device's host, and work there.`],
    // The account module's answers.
    3000: ['The request could not be carried out.', "Press Refresh to see the device's state, then try again."],
    3001: ['A field is missing or not valid.', 'Check the entries and try again.'],
    3002: ['The account service cannot be reached.', "Check the device's network connection, then try again."],
    3003: ['The account service has a problem.', 'Try again in a few minutes.'],
    3004: {
      any: ['Wrong e-mail address or password, or the key, token or code is no longer valid.',
        'Check the entries and try again.'],
      password: ['Wrong e-mail address or password.', 'Check both and try again.'],
      pkce: ['The account service does not know this e-mail address and password.', 'Check both and try again.'],
      key: ['The key does not fit this serial number, or it is no longer valid: every sign-in makes a new one.',
        'Check both, or sign in another way.'],
      token: ['The access token is not valid, or has expired.', 'Get a new one from the account service and try again.'],
      profile: ['The current password is wrong.',
        'Enter the password the account has now under "Current password", then save again.'],
    },
    3005: {
      any: ['This e-mail address already belongs to an account.', 'Sign in with it, or use another address.'],
      profile: ['This e-mail address already belongs to another account.', 'Use another address.'],
    },
    3006: ['This device has created as many accounts as it may.', 'Sign in with an account that exists instead.'],
    3008: ['The account service refused the request.',
      "Try again later; if it keeps refusing, ask the account service's support."],
    3010: ['An account is already signed in on this device.', 'Sign it out first (Sign out, at the end of the page).'],
    3013: ['The account service refused the request for this account.',
      "Ask the account service's support about this account."],
    3014: {
      any: ['The device cannot sign out now.', 'Wait until what it names has ended, then sign out again.'],
      hard: ['The hard check refused: the device cannot sign out while these last.',
        'Wait until they have ended, then press Sign out again.'],
      soft: ['The soft check refused: signing out now would interrupt these.',
        'Wait until they have ended and press Sign out again, or press "Sign out anyway".'],
    },
  };
  const unknown = ['The request failed.', "Open Details to see the device's answer, then try again."];

  // The account-client library's error numbers, as the device makes codes of
  // them (any other is 3000). The account service's own pages answer them
  // too, and the panel of its conditions offers them: both are told in the
  // words of those codes.
  const accountError = { 1: 3001, 4: 3002, 5: 3003, 14: 3004, 15: 3002, 16: 3005, 17: 3006, 18: 3008, 25: 3013 };

  // A field the page can check itself, named by its label.
  const field = {
    missing: (name) => [`${name}: this field is empty.`, 'Fill it in.'],
    email: (name) => [`${name}: this is not an e-mail address.`, 'Write it as name@example.com, without spaces.'],
    bytes: (name, min, max, size) => [`${name}: it must be ${min} to ${max} bytes long, and it is ${size}.`,
      size < min ? 'Make it longer.' : 'Make it shorter (a letter outside A to Z takes 2 bytes or more).'],
    date: (name) => [`${name}: the date is not complete.`, 'Finish it, or clear it to leave this end open.'],
    number: (name, min, max) => [`${name}: it must be a number from ${min} to ${max}.`, 'Correct it and try again.'],
    order: (first, last) => [`${first} is after ${last}.`, 'Swap the two dates.'],
    needs: (name, other) => [`${name}: needed together with "${other}".`, `Fill in "${name}", or clear "${other}".`],
  };

  // Settings of pkce_config_get's login that a PKCE sign-in needs and the device does not give.
  const pkceSettings = (names) => [
    `The device's PKCE settings lack ${new Intl.ListFormat('en').format(names)}, which this sign-in needs.`,
    'Sign in another way, or complete the PKCE settings of the device and try again.'];

  return {
    // [what went wrong, what to do]
    of(code, context) {
      const entry = byCode[code];
      if (!entry) return unknown;
      return Array.isArray(entry) ? entry : entry[context] || entry.any;
    },
    codeOfAccountError(number) {
      return accountError[number] || 3000;
    },
    field,
    pkceSettings,
    // For the page's tests: every code the table holds, and every pair.
    codes: () => Object.keys(byCode).map(Number),
    all() {
      const pairs = [unknown];
      for (const entry of Object.values(byCode)) pairs.push(...(Array.isArray(entry) ? [entry] : Object.values(entry)));
      return pairs;
    },
  };
})();
