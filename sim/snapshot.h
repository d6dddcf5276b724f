// The account service's part of the host's state document (docs/devhost.md,
// "The whole state"): its limits and its accounts, each with its profile,
// settings, password hash, sign-in keys and purchases, and the device's
// binding to one of them. Access tokens and grant codes live minutes and are
// not part of it: an import drops them.
//
//   {"limits":{"accounts_per_device":5},
//    "accounts":[{"email":..., "full_name":..., "password_hash":{"salt","hash","iterations"},
//                 ..., "keys":[{"auth_key","serial","issued"}],
//                 "purchases":[{"app","serial","price","currency","paypal","date"}]}]}
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

#include "service.h"
#include "store.h"

namespace pellixsim {

// The service as one document, written onto *text as webapihost::Compact
// would write it, with `conditions` as its "conditions" (nullptr: none); and
// in *signedIn the binding of device `serial` ({"email","auth_key"}, or
// null), read in one read transaction so that both are of one instant.
// kSystem on a storage failure. The document is written as it is read: a
// Json::Value of 10,000 accounts took seconds to build and to write.
uint32_t WriteService(Store& store, const Options& options, const std::string& serial, const Json::Value* conditions,
                      std::string* text, Json::Value* signedIn);
// The same document as a value, without conditions.
uint32_t ExportService(Store& store, const Options& options, const std::string& serial, Json::Value* service,
                       Json::Value* signedIn);

// Why `service` (the document's /service) with the binding `signedIn` (its
// /device/account) cannot be imported: a sentence that begins with the JSON
// pointer of the member at fault; "" when it can. An account may give
// "password" in clear instead of "password_hash"; a serial left out is the
// device's (`serial`).
std::string CheckService(const Json::Value& service, const Json::Value& signedIn);

// Replaces every table of the service with what CheckService accepted, and
// records `generation` as the import's (Store::ReadGeneration), in one write
// transaction on disk when this returns: all of it or, on a storage failure
// (kSystem), nothing. The host's device files staged for the same
// replacement follow this commit (host/state.h). Passwords in clear are
// hashed first, outside the store's lock.
uint32_t ImportService(Store& store, const Options& options, const Json::Value& service, const Json::Value& signedIn,
                       const std::string& serial, const std::string& generation);

}  // namespace pellixsim
