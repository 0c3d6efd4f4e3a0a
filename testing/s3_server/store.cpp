#include "testing/s3_server/store.h"

#include "testing/s3_server/digest.h"

#include <algorithm>
#include <cstring>
#include <mutex>

namespace s3_testing {
namespace {

constexpr std::uint64_t LARGEST_DIGESTED = 64u << 10;

std::uint64_t mix(std::uint64_t x) {
  x += 0x9e3779b97f4a7c15u;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9u;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebu;
  return x ^ (x >> 31);
}

std::uint64_t little_endian(std::uint64_t x) {
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  return __builtin_bswap64(x);
#else
  return x;
#endif
}

void fill_synthetic(std::uint64_t seed, std::uint64_t offset, char* out, std::size_t length) {
  const std::uint64_t base = mix(seed);
  std::uint64_t word = offset / 8;
  std::size_t skip = static_cast<std::size_t>(offset % 8);
  while (length > 0) {
    const std::uint64_t value = little_endian(mix(base + word++));
    const std::size_t take = std::min<std::size_t>(8 - skip, length);
    std::memcpy(out, reinterpret_cast<const char*>(&value) + skip, take);
    out += take;
    length -= take;
    skip = 0;
  }
}

/// The MD5 where that costs little, else something that cannot be taken for one.
std::string synthetic_etag(std::uint64_t seed, std::uint64_t size) {
  if (size <= LARGEST_DIGESTED)
    return to_hex(md5(synthetic_bytes(seed, 0, static_cast<std::size_t>(size))));
  const std::uint64_t words[2] = {mix(seed ^ mix(size)), mix(seed + 0x5bd1e995u + size)};
  return "synthetic." + to_hex({reinterpret_cast<const char*>(words), sizeof words});
}

} // namespace

void Object::read(std::uint64_t offset, std::size_t length, std::string& out) const {
  out.resize(length);
  if (synthetic) {
    fill_synthetic(seed, offset, out.data(), length);
    return;
  }
  char* to = out.data();
  for (const auto& segment : segments) {
    if (length == 0)
      break;
    if (offset >= segment->size()) {
      offset -= segment->size();
      continue;
    }
    const std::size_t from = static_cast<std::size_t>(offset);
    const std::size_t take = std::min(segment->size() - from, length);
    std::memcpy(to, segment->data() + from, take);
    to += take;
    length -= take;
    offset = 0;
  }
}

std::string Object::bytes() const {
  std::string out;
  read(0, static_cast<std::size_t>(size), out);
  return out;
}

std::string synthetic_bytes(std::uint64_t seed, std::uint64_t offset, std::size_t length) {
  std::string out(length, '\0');
  fill_synthetic(seed, offset, out.data(), length);
  return out;
}

namespace {

constexpr std::size_t compared_at_once = 1u << 20;

std::string difference_at(std::uint64_t offset, std::uint64_t length) {
  return "bytes " + std::to_string(offset) + " to " + std::to_string(offset + length - 1) + " differ";
}

// `digests` belongs to the object that cannot be read.
std::string difference_by_digests(const std::vector<Object::Thrown_Away>& digests, const Object& other) {
  std::uint64_t offset = 0;
  std::string piece;
  for (const Object::Thrown_Away& part : digests) {
    other.read(offset, static_cast<std::size_t>(part.size), piece);
    if (md5(piece) != part.md5)
      return difference_at(offset, part.size);
    offset += part.size;
  }
  return {};
}

} // namespace

std::string difference(const Object& a, const Object& b) {
  if (a.size != b.size)
    return "sizes " + std::to_string(a.size) + " and " + std::to_string(b.size) + " differ";
  if (!a.thrown_away.empty() && !b.thrown_away.empty())
    return a.etag == b.etag ? std::string() : "the digests differ";
  if (!a.thrown_away.empty())
    return difference_by_digests(a.thrown_away, b);
  if (!b.thrown_away.empty())
    return difference_by_digests(b.thrown_away, a);
  std::string one, other;
  for (std::uint64_t offset = 0; offset < a.size;) {
    const std::size_t length = static_cast<std::size_t>(std::min<std::uint64_t>(a.size - offset, compared_at_once));
    a.read(offset, length, one);
    b.read(offset, length, other);
    if (one != other)
      return difference_at(offset, length);
    offset += length;
  }
  return {};
}

Object make_object(std::string bytes) {
  Object object;
  object.size = bytes.size();
  object.etag = to_hex(md5(bytes));
  object.segments.push_back(std::make_shared<const std::string>(std::move(bytes)));
  return object;
}

Object make_synthetic_object(std::uint64_t size, std::uint64_t seed) {
  Object object;
  object.size = size;
  object.seed = seed;
  object.synthetic = true;
  object.etag = synthetic_etag(seed, size);
  return object;
}

std::uint64_t Store::Run::lower_bound(const std::string& key) const {
  if (key <= first)
    return 0;
  if (key > last)
    return keys.count;
  std::uint64_t low = 0, high = keys.count;
  while (low < high) {
    const std::uint64_t middle = low + (high - low) / 2;
    if (keys.key(middle) < key)
      low = middle + 1;
    else
      high = middle;
  }
  return low;
}

Object_Ptr Store::Run::object(std::uint64_t index) const {
  Object made = make_synthetic_object(keys.size(index), mix(keys.seed) ^ mix(index));
  made.mtime = keys.mtime;
  return std::make_shared<const Object>(std::move(made));
}

bool Store::in_runs(const Bucket& bucket, const std::string& key, Object_Ptr* object) {
  for (const Run& run : bucket.runs) {
    if (key < run.first || key > run.last)
      continue;
    const std::uint64_t index = run.lower_bound(key);
    if (index < run.keys.count && run.keys.key(index) == key) {
      if (object)
        *object = run.object(index);
      return true;
    }
  }
  return false;
}

bool Store::create_bucket(const std::string& bucket, std::int64_t now) {
  std::unique_lock guard(lock_);
  auto [at, made] = buckets_.try_emplace(bucket);
  if (made)
    at->second.created = now;
  return made;
}

int Store::remove_bucket(const std::string& bucket) {
  {
    std::shared_lock guard(lock_);
    if (!buckets_.count(bucket))
      return 1;
  }
  bool any = false;
  walk(bucket, "", [&](const std::string&, std::string&, const Make_Object&) {
    any = true;
    return false;
  });
  if (any)
    return 2;
  std::unique_lock guard(lock_);
  return buckets_.erase(bucket) ? 0 : 1;
}

bool Store::has_bucket(const std::string& bucket) const {
  std::shared_lock guard(lock_);
  return buckets_.count(bucket) != 0;
}

std::vector<std::pair<std::string, std::int64_t>> Store::buckets() const {
  std::shared_lock guard(lock_);
  std::vector<std::pair<std::string, std::int64_t>> out;
  for (const auto& [name, bucket] : buckets_)
    out.emplace_back(name, bucket.created);
  return out;
}

bool Store::put(const std::string& bucket, const std::string& key, Object object) {
  auto stored = std::make_shared<const Object>(std::move(object));
  std::unique_lock guard(lock_);
  const auto at = buckets_.find(bucket);
  if (at == buckets_.end())
    return false;
  at->second.objects[key] = std::move(stored);
  if (in_runs(at->second, key, nullptr))
    at->second.removed.insert(key);
  return true;
}

bool Store::add_synthetic(const std::string& bucket, Synthetic_Keys keys) {
  if (keys.count == 0)
    return has_bucket(bucket);
  Run run;
  run.first = keys.key(0);
  run.last = keys.key(keys.count - 1);
  run.keys = std::move(keys);
  std::unique_lock guard(lock_);
  const auto at = buckets_.find(bucket);
  if (at == buckets_.end())
    return false;
  at->second.runs.push_back(std::move(run));
  return true;
}

bool Store::remove(const std::string& bucket, const std::string& key) {
  std::unique_lock guard(lock_);
  const auto at = buckets_.find(bucket);
  if (at == buckets_.end())
    return false;
  bool existed = at->second.objects.erase(key) != 0;
  if (in_runs(at->second, key, nullptr))
    existed = at->second.removed.insert(key).second || existed;
  return existed;
}

Object_Ptr Store::find(const std::string& bucket, const std::string& key) const {
  std::shared_lock guard(lock_);
  const auto at = buckets_.find(bucket);
  if (at == buckets_.end())
    return nullptr;
  const auto object = at->second.objects.find(key);
  if (object != at->second.objects.end())
    return object->second;
  Object_Ptr made;
  if (!at->second.removed.count(key))
    in_runs(at->second, key, &made);
  return made;
}

std::uint64_t Store::object_count(const std::string& bucket) const {
  std::shared_lock guard(lock_);
  const auto at = buckets_.find(bucket);
  if (at == buckets_.end())
    return 0;
  std::uint64_t count = at->second.objects.size();
  for (const Run& run : at->second.runs)
    count += run.keys.count;
  return count - at->second.removed.size();
}

void Store::walk(const std::string& bucket_name, const std::string& from, const Visit& visit) const {
  std::shared_lock guard(lock_);
  const auto found = buckets_.find(bucket_name);
  if (found == buckets_.end())
    return;
  const Bucket& bucket = found->second;

  // A merge of the stored keys and the runs: one head per source, the smallest on top of the heap.
  struct Head {
    std::string key;
    const Run* run; // null: the stored objects
    std::uint64_t index;
  };
  const auto greater = [](const Head& a, const Head& b) { return a.key > b.key; };
  std::vector<Head> heads;
  auto stored = bucket.objects.end();
  const auto seek = [&](const std::string& to) {
    heads.clear();
    stored = bucket.objects.lower_bound(to);
    if (stored != bucket.objects.end())
      heads.push_back({stored->first, nullptr, 0});
    for (const Run& run : bucket.runs) {
      const std::uint64_t index = run.lower_bound(to);
      if (index < run.keys.count)
        heads.push_back({run.keys.key(index), &run, index});
    }
    std::make_heap(heads.begin(), heads.end(), greater);
  };

  seek(from);
  std::string leap, last;
  bool any = false;
  while (!heads.empty()) {
    std::pop_heap(heads.begin(), heads.end(), greater);
    Head& head = heads.back();
    // Two runs may hold the same key: it is one object all the same.
    const bool hidden = (head.run && bucket.removed.count(head.key)) || (any && head.key == last);
    if (!hidden) {
      last = head.key;
      any = true;
      leap.clear();
      const bool more = visit(head.key, leap, [&] { return head.run ? head.run->object(head.index) : stored->second; });
      if (!more)
        return;
      if (!leap.empty()) {
        seek(leap);
        continue;
      }
    }
    if (head.run) {
      if (++head.index == head.run->keys.count) {
        heads.pop_back();
        continue;
      }
      head.key = head.run->keys.key(head.index);
    } else {
      if (++stored == bucket.objects.end()) {
        heads.pop_back();
        continue;
      }
      head.key = stored->first;
    }
    std::push_heap(heads.begin(), heads.end(), greater);
  }
}

} // namespace s3_testing
