// Requests built from "key=value" arguments and replies printed as "key=value" lines, for every
// layout of the wire codec, so that scripts name fields instead of writing bytes.
//
//   request fields                              reply lines
//   protect-services  svc= proc= name= ...      status replies   result= message=
//   protect-processes protect= image= ...       list replies     count=, then one line per element
//   protect-reg-keys  protect= root= path= owner= service= ... level=
//
// A key that repeats within a list element starts the next element (name=a svc=1 name=b); a
// string-list key (arg=, service=, path=) appends. Flags and numbers take C notation (1, 0x1F).
#pragma once

#include <string>
#include <vector>

#include "mcl/buffer.h"

namespace named_fields {

// Encodes request `message` (a catalogue name such as "protect-services") from `args`. False,
// with the reason in `error`, for an unknown message, key or value.
bool encode_request(const std::string& message, const std::vector<std::string>& args, uint32_t& id,
                    mcl::binary_t& payload, std::string& error);

// Encodes the reply to `message` from `args`, with the keys that decode_reply prints (a list
// reply takes its elements' keys; its count follows from them).
bool encode_reply(const std::string& message, const std::vector<std::string>& args, mcl::binary_t& payload,
                  std::string& error);

// The reply of `id` as lines of named fields; false when it does not decode in its layout.
bool decode_reply(uint32_t id, const mcl::binary_t& reply, std::vector<std::string>& lines);

// The catalogue names with their request keys, one per line, for the usage text.
std::string describe();

}  // namespace named_fields
