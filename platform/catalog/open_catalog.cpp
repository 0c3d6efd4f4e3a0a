#include "platform/catalog/open_catalog.h"

std::unique_ptr<Catalog_Reader> open_set_catalog(const Pool& pool, const Set_Record& record, std::string& error) {
  Set_Cipher_ptr cipher;
  if (!open_set_cipher(pool, record, cipher, error))
    return nullptr;
  return Catalog_Reader::open(pool.set_folder(record.uri), error, cipher);
}
