// The host's own answer codes. They share the envelope
// {"success":false,"error":{"code":N}} with the modules' codes, so they sit
// in a range of their own: the modules answer 1 to 15, 5001 and 5002; 100
// is what a handler that throws or does not answer gets, as with the
// command-line request runner.
#ifndef VELA_WEBAPID_SHARED_HOST_CODES_H_
#define VELA_WEBAPID_SHARED_HOST_CODES_H_

namespace vela::webapid {

enum HostCode {
  kCodeHandlerFailed = 100,    // the handler threw or did not answer
  kCodeUnknownApi = 101,       // no loaded module serves the API
  kCodeUnknownVersion = 102,   // the API exists, not in that version
  kCodeUnknownMethod = 103,    // the API and version exist, the method does not
  kCodeMalformedBody = 104,    // the body is not a JSON object
  kCodeNotLoggedIn = 105,      // no session, or it expired
  kCodeNotPermitted = 106,     // wrong CSRF token or Origin, or not an administrator
  kCodeTooLarge = 107,         // the request body is over the limit
  kCodeTooManyAttempts = 108,  // too many failed logins from the address or for the user
  kCodeLoginFailed = 109,      // unknown user or wrong password
  kCodeUnavailable = 110,      // the host is stopping or cannot answer now
};

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_SHARED_HOST_CODES_H_
