#include "sdk/crypto/obs_sk_decryptor.h"

#include "platform/crypto/secret.h"

#include <ace/Log_Msg.h>

OBS_SK_Decryptor::OBS_SK_Decryptor(const std::string& cipher_text) {
  std::string error;
  if (!open_secret(cipher_text, plain_, error)) {
    plain_.clear();
    ACE_ERROR((LM_ERROR, ACE_TEXT("%C.\n"), error.c_str()));
  }
}
