#pragma once

#include <string>
#include <vector>

// What targets that read media share.

/// Puts the checksums and checks of a medium right; what is sealed under the cipher of the inputs gets a tag that fits.
void mend_medium(std::string& input);

/// The ids of blocks and streams.
const std::vector<std::string>& medium_words();
