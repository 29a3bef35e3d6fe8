#pragma once

#include <nelo_rpc/CValueList.h>

#include <memory>
#include <string>
#include <vector>

/// Values as words of the command line and as text.

/// "int:5", "string:abc" and so on; without a type, a number or a text. Throws CFailure for what cannot be read.
std::shared_ptr<nelo_rpc::types::CValue> parseArgument(std::string const& word);

/// The words as arguments at 0, 1, ... Throws CFailure, also for what cannot be sent.
nelo_rpc::types::CValueList parseArguments(std::vector<std::string> const& words);

/// A value alone, as `call` prints it: 5, abc, true, 00ff.
std::string plainText(nelo_rpc::types::CValue& value);

/// A value with its type where that is not plain: 5, "abc", double:21.5, bytes:00ff. On one line, long ones are cut.
std::string typedText(nelo_rpc::types::CValue& value);

/// The entries from 0 on, with their types: (5, "abc").
std::string typedText(nelo_rpc::types::CValueList const& list);

/// {"type":"int","value":5}
std::string json(nelo_rpc::types::CValue& value);

/// The entries from 0 on: {"0":{"type":"int","value":5}}
std::string json(nelo_rpc::types::CValueList const& list);

/// The text in quotes, as JSON has it. It must be valid UTF-8.
std::string jsonText(std::string const& text);

/// Without control characters, which could change what a terminal shows.
std::string onOneLine(std::string const& text);

/// The text under a reserved index, or nothing if there is none.
std::string textAt(nelo_rpc::types::CValueList const& list, int index);

/// The integer under a reserved index as text, or "?" if there is none.
std::string numberAt(nelo_rpc::types::CValueList const& list, int index);
