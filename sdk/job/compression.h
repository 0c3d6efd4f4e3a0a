#pragma once

enum Compression_Method { COMPR_NONE = 0, COMPR_AUTO = 1, COMPR_LZOP = 2, COMPR_ZSTD = 3, COMPR_MAX = 4 };

/// "none", "auto", "lzop" or "zstd", by exact bytes; COMPR_NONE for any other text.
Compression_Method compression_name_to_value(const char* name, int length);
/// The text of a value, or null for one that has none.
const char* compression_value_to_name(Compression_Method method);

enum Encryption_Algorithm { ENCRYPTION_NONE = 0, ENCRYPTION_AES_256_GCM = 1 };

/// "none" or "aes-256-gcm"; null for a value without a name. `only_real`: null for ENCRYPTION_NONE too.
const char* encryption_value_to_name(Encryption_Algorithm algorithm, bool only_real);
