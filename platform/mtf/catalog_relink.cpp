#include "platform/mtf/catalog_relink.h"

#include "platform/catalog/catalog_moves.h"
#include "platform/catalog/catalog_reader.h"
#include "platform/catalog/catalog_sum.h"
#include "platform/pool/pool_files.h"

#include <algorithm>
#include <cerrno>

bool relink_copy(const Pool& pool, const std::string& folder, const std::string& work, const Set_Cipher_ptr& cipher,
                 const Set_Record& merged, std::string& error) {
  Set_Cipher_ptr merged_cipher;
  const std::string there = pool.set_folder(merged.uri);
  if (!open_set_cipher(pool, merged, merged_cipher, error) || !check_catalog_sum(folder, error) ||
      !check_catalog_sum(there, error))
    return false;
  const auto moves = Catalog_Moves::open(there, error, merged_cipher);
  if (!moves) {
    if (error.empty())
      error = "the catalog of the merged set " + merged.uuid + " does not say where its data came from";
    return false;
  }
  if (!make_pool_folder(work)) {
    error = "cannot make folder " + work + ": " + pool_file_error(errno);
    return false;
  }
  Catalog_Db db;
  return copy_catalog(folder, work, db, error, cipher, cipher) &&
         relink_catalog(db, *moves, {0, merged.uuid, merged.uri, merged.seq}, false, error) &&
         finish_catalog_copy(db, work, error);
}

bool follow_merges(const Pool& pool, const std::string& place, const std::string& uuid, const std::string& work,
                   const Set_Cipher_ptr& cipher, std::string& error) {
  // A record that cannot be read may be the very one that is to be made anew.
  std::vector<std::string> ignored;
  for (const Set_Record& merged : pool.sets(place, ignored)) {
    if (merged.replaces.empty() || merged.uuid == uuid)
      continue;
    const auto catalog = Catalog_Reader::open(work, error, cipher);
    if (!catalog)
      return false;
    const bool points = std::any_of(catalog->sets().begin(), catalog->sets().end(), [&](const Catalog_Set& set) {
      return set.index != 0 && std::count(merged.replaces.begin(), merged.replaces.end(), set.uuid) != 0;
    });
    if (!points)
      continue;
    const std::string next = work + "/relink";
    std::string left;
    remove_pool_tree(next, left);
    if (!relink_copy(pool, work, next, cipher, merged, error))
      return false;
    const std::string from = next + "/" + catalog::FILE_NAME, to = work + "/" + catalog::FILE_NAME;
    if (!rename_pool_file(from, to)) {
      error = "cannot replace " + to + ": " + pool_file_error(errno);
      return false;
    }
    remove_pool_tree(next, left);
  }
  return true;
}
