#pragma once

#include <array>
#include <string>

/// 256 bits. Wipes itself.
class Secret_Key {
public:
  static constexpr size_t SIZE = 32;
  Secret_Key() = default;
  Secret_Key(const Secret_Key&) = default;
  Secret_Key& operator=(const Secret_Key&) = default;
  ~Secret_Key();
  unsigned char* data() { return bytes_.data(); }
  const unsigned char* data() const { return bytes_.data(); }

private:
  std::array<unsigned char, SIZE> bytes_{};
};

/// The folder in which the master key lies, "FOLDER/master.key"; the program sets it to its state folder before it
/// opens or seals anything. Any thread.
void set_key_folder(const std::string& folder);
std::string key_folder();

/// Reads the master key, a file of 32 random bytes that nobody but its owner may read. With `make` a missing one is
/// made (mode 0600), and what processes left that were killed while they made one is removed; of several processes that
/// make one at once, all get the same key. False with the reason, which never
/// holds key bytes.
bool load_master_key(bool make, Secret_Key& key, std::string& error);
