#pragma once

#include <list>
#include <string>

/// Parses "[nocompress] <reason>", consuming `words` up to and including the reason word; what
/// follows is left. `compress` becomes false when "nocompress" stands before the reason, and is not
/// touched otherwise. `reason` becomes that of the request, a default without a reason word.
void parseDumpArguments(std::list<std::string>& words, bool& compress, std::string& reason);
