#include "platform/catalog/open_catalog.h"

#include "platform/catalog/catalog_sum.h"

std::unique_ptr<Catalog_Reader> open_set_catalog(const Pool& pool, const Set_Record& record, std::string& error) {
  Set_Cipher_ptr cipher;
  if (!open_set_cipher(pool, record, cipher, error))
    return nullptr;
  std::unique_ptr<Catalog_Reader> catalog = Catalog_Reader::open(pool.set_folder(record.uri), error, cipher);
  if (catalog && catalog->set_uuid() != record.uuid) {
    error = "in " + pool.set_folder(record.uri) + " lies the catalog of another set (" + catalog->set_uuid() +
            " instead of " + record.uuid + ")";
    catalog.reset();
  }
  return catalog;
}

std::unique_ptr<Catalog_Reader> open_checked_catalog(const Pool& pool, const Set_Record& record, std::string& error) {
  std::unique_ptr<Catalog_Reader> catalog = open_set_catalog(pool, record, error);
  bool none = false;
  // By the name of the file that was opened: whoever may replace it holds the pool's lock.
  if (catalog &&
      (!check_catalog_sum(pool.set_folder(record.uri), error, &none) || (none && !catalog->check_pages(error))))
    catalog.reset();
  return catalog;
}
