#include "obs/agent/job/buckets_mapper.h"

Buckets_Mapper::Buckets_Mapper() = default;

Buckets_Mapper::~Buckets_Mapper() = default;

Buckets_Mapper::mapper_t& Buckets_Mapper::default_mapper() {
  return default_;
}

Buckets_Mapper::mappers_t& Buckets_Mapper::mappers() {
  return mappers_;
}

const Buckets_Mapper::mapper_t& Buckets_Mapper::mapper(const std::string& name) const {
  const mappers_t::const_iterator found = mappers_.find(name);
  return found == mappers_.end() ? default_ : found->second;
}
