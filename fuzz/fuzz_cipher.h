#pragma once

#include "platform/crypto/set_cipher.h"

/// The cipher of all encrypted sets among the inputs, so that targets get behind what is sealed.
inline const Set_Cipher_ptr& fuzz_cipher() {
  static const Set_Cipher_ptr cipher = [] {
    Secret_Key key;
    std::string error;
    key.data()[0] = 7;
    return Set_Cipher::open(key, "0f0e0d0c-0b0a-0908-0706-050403020100",
                            "obsk1:i7bgx2aUK2hTUc29e8oKDJ+96KPmlzlNoltsAGKv3mGq8SIDfZvFiIaex6tSXMLEMKYoCjq87yULvwa46/"
                            "HqNiWj1Zd3/chSu6xAwQ==",
                            error);
  }();
  return cipher;
}
