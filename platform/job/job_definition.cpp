#include "sdk/job/job_definition.h"

Job_Definition::Job_Definition() = default;
Job_Definition::Job_Definition(Settings settings) : settings_(std::move(settings)) {}
Job_Definition::~Job_Definition() = default;

Job_Source::~Job_Source() = default;
Job_Options::~Job_Options() = default;
