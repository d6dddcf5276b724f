// Every error code the page can meet, and what a person is told about it.
// This is the only place where codes become words: the rest of the page asks
// Messages.sentence(code).
'use strict';

const Messages = (() => {
  const byCode = {
    // The page's own: the host could not be reached or did not answer JSON.
    0: 'The device did not answer. Check that it is running and try again.',
    // The web API host's own answers.
    100: 'The device failed while answering. Try again.',
    101: 'The device did not understand the request.',
    102: 'The device does not offer this function.',
    103: 'The device does not offer this function.',
    104: 'The device does not offer this version of the function.',
    105: 'You are not allowed to do this.',
    106: 'The request is too large.',
    107: 'The sign-in took too long. Start it again.',
    // The account module's answers.
    3000: 'The request could not be carried out.',
    3001: 'A field is missing or not valid. Check the entries.',
    3002: 'The account service cannot be reached.',
    3003: 'The account service has a problem. Try again later.',
    3004: 'Wrong e-mail address or password, or the key, token or code is no longer valid.',
    3005: 'This e-mail address already belongs to an account.',
    3006: 'This device has created as many accounts as it may.',
    3008: 'The account service refused the request.',
    3010: 'An account is already signed in on this device. Sign out first.',
    3013: 'The account service refused the request for this account.',
    3014: 'The device cannot sign out now.',
  };

  // The account service's own pages answer its account error numbers; they
  // are told in the words of the codes the device makes of them.
  const accountError = { 1: 3001, 5: 3003, 14: 3004, 16: 3005, 17: 3006 };

  return {
    sentence(code) {
      return byCode[code] || 'The request failed.';
    },
    codeOfAccountError(number) {
      return accountError[number] || 3000;
    },
  };
})();
