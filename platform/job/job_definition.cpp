#include "sdk/job/job_definition.h"

#include "sdk/json/yajl_writer.h"

Job_Definition::Job_Definition() = default;
Job_Definition::Job_Definition(Settings settings) : settings_(std::move(settings)) {}
Job_Definition::~Job_Definition() = default;

Job_Source::~Job_Source() = default;
Job_Options::~Job_Options() = default;

int Job_Source::generate(yajl_gen_t* gen) const {
  yajl_gen_map_open(gen);
  yajl_write(gen, "id");
  yajl_write(gen, id_);
  if (!name_.empty()) {
    yajl_write(gen, "name");
    yajl_write(gen, name_);
  }
  yajl_gen_map_close(gen);
  return 0;
}

int Job_Options::generate(yajl_gen_t* gen) {
  yajl_gen_map_open(gen);
  yajl_gen_map_close(gen);
  return 0;
}
