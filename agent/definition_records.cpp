#include "agent/definition_records.h"

#include "agent/definition_members.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

namespace {

const char* wanted(unsigned kinds) {
  switch (kinds) {
  case MEMBER_TEXT:
    return "a string";
  case MEMBER_NUMBER:
    return "a number";
  case MEMBER_TEXT | MEMBER_NUMBER:
    return "a number or a string";
  case MEMBER_FLAG:
    return "true or false";
  case MEMBER_OBJECT:
    return "an object";
  default:
    return "a list";
  }
}

/// Gives the events of one member of the definition to the parser that reads it.
class Record_Reader {
public:
  Record_Reader(const char* name, const Definition_Members& members, Object_Creator_T<YAJL_Handler>& parsers)
      : name_(name), members_(members), parsers_(parsers) {}
  ~Record_Reader() { parsers_.destroy(parser_); }
  Record_Reader(const Record_Reader&) = delete;
  Record_Reader& operator=(const Record_Reader&) = delete;

  const char* name() const { return name_; }
  bool was_read() const { return parser_ != nullptr; }
  YAJL_Handler* parser() const { return parser_; }
  const std::string& error() const { return error_; }

  /// A member of that name begins, with a parser of its own: one before it does not count any more.
  bool begin() {
    parsers_.destroy(parser_);
    parser_ = parsers_.create();
    path_.clear();
    fill_seq_ = true;
    return parser_ != nullptr || refuse("out of memory");
  }

  template <typename EVENT>
  bool value(Member_Kind kind, EVENT event) {
    return fits(kind) && give(event);
  }
  template <typename EVENT>
  bool open(Member_Kind kind, EVENT event) {
    if (!path_.empty() && !fits(kind))
      return false;
    path_.push_back(Level{kind == MEMBER_OBJECT, std::string()});
    return give(event);
  }
  bool key(const char* text, unsigned length) {
    path_.back().key.assign(text, length);
    if (path_.size() == 1 && path_.back().key == "seq")
      fill_seq_ = false;
    return give([&](YAJL_Handler& parser) { return parser.handle_map_key_i(text, length); });
  }
  /// True in `over` when the member has ended.
  template <typename EVENT>
  bool close(EVENT event, bool rehearsal, bool& over) {
    over = path_.size() == 1;
    if (over && rehearsal && fill_seq_ &&
        !give([](YAJL_Handler& parser) { return parser.handle_map_key_i("seq", 3) && parser.handle_number_i("0", 1); }))
      return false;
    errno = 0;
    if (over && !event(*parser_))
      return refuse(errno == ENOMEM ? "out of memory" : "it lacks a member that it needs; the log says which");
    if (!over && !give(event))
      return false;
    path_.pop_back();
    return true;
  }
  bool refuse(const std::string& why) {
    error_ = std::string("job definition: \"") + name_ + "\" is not valid: " + why;
    return false;
  }

private:
  struct Level {
    bool object;
    std::string key; ///< read last
  };

  template <typename EVENT>
  bool give(EVENT event) {
    errno = 0;
    return event(*parser_) || refuse(errno == ENOMEM ? "out of memory" : "\"" + place() + "\" is not what it can be");
  }
  /// "bucket_maps[].source", say, of the value that comes next.
  std::string place() const {
    std::string text;
    for (const Level& level : path_)
      text += level.object ? (text.empty() ? "" : ".") + level.key : "[]";
    return text;
  }
  bool fits(Member_Kind kind) {
    const std::string at = place();
    for (const Definition_Member& member : members_)
      if (at == member.path && (member.kinds & kind) == 0)
        return refuse("\"" + at + "\" must be " + wanted(member.kinds));
    return true;
  }

  const char* const name_;
  const Definition_Members& members_;
  Object_Creator_T<YAJL_Handler>& parsers_;
  YAJL_Handler* parser_ = nullptr;
  std::vector<Level> path_; ///< open containers of the member, its own object first
  bool fill_seq_ = true;
  std::string error_;
};

/// Reads the definition's own object and lets the two members' readers have what belongs to them.
class Definition_Driver : public YAJL_Handler {
public:
  Definition_Driver(Record_Reader& source, Record_Reader& options, bool rehearsal)
      : source_(source), options_(options), rehearsal_(rehearsal) {}

  bool handle_null_i() override {
    return value(MEMBER_NULL, [](YAJL_Handler& parser) { return parser.handle_null_i(); });
  }
  bool handle_boolean_i(bool given) override {
    return value(MEMBER_FLAG, [given](YAJL_Handler& parser) { return parser.handle_boolean_i(given); });
  }
  bool handle_number_i(const char* text, unsigned length) override {
    return value(MEMBER_NUMBER, [=](YAJL_Handler& parser) { return parser.handle_number_i(text, length); });
  }
  bool handle_string_i(const char* text, unsigned length) override {
    return value(MEMBER_TEXT, [=](YAJL_Handler& parser) { return parser.handle_string_i(text, length); });
  }
  bool handle_start_map_i() override {
    return open(MEMBER_OBJECT, [](YAJL_Handler& parser) { return parser.handle_start_map_i(); });
  }
  bool handle_start_array_i() override {
    return open(MEMBER_LIST, [](YAJL_Handler& parser) { return parser.handle_start_array_i(); });
  }
  bool handle_end_map_i() override {
    return close([](YAJL_Handler& parser) { return parser.handle_end_map_i(); });
  }
  bool handle_end_array_i() override {
    return close([](YAJL_Handler& parser) { return parser.handle_end_array_i(); });
  }
  bool handle_map_key_i(const char* text, unsigned length) override {
    if (present_ != nullptr)
      return present_->key(text, length);
    if (depth_ == 1)
      next_ = named(std::string(text, length));
    return true;
  }

private:
  Record_Reader* named(const std::string& key) const {
    return key == source_.name() ? &source_ : key == options_.name() ? &options_ : nullptr;
  }
  template <typename EVENT>
  bool value(Member_Kind kind, EVENT event) {
    if (present_ != nullptr)
      return present_->value(kind, event);
    return depth_ != 1 || next_ == nullptr || next_->refuse("it must be an object");
  }
  template <typename EVENT>
  bool open(Member_Kind kind, EVENT event) {
    if (present_ == nullptr && depth_ == 1 && next_ != nullptr) {
      if (kind != MEMBER_OBJECT)
        return next_->refuse("it must be an object");
      if (!next_->begin())
        return false;
      present_ = next_;
    }
    ++depth_;
    return present_ == nullptr || present_->open(kind, event);
  }
  template <typename EVENT>
  bool close(EVENT event) {
    --depth_;
    if (present_ == nullptr)
      return true;
    bool over = false;
    const bool good = present_->close(event, rehearsal_ && present_ == &source_, over);
    if (over)
      present_ = nullptr;
    return good;
  }

  Record_Reader& source_;
  Record_Reader& options_;
  const bool rehearsal_;
  unsigned depth_ = 0;
  Record_Reader* next_ = nullptr;    ///< reads the definition's member whose key came last; null for any other
  Record_Reader* present_ = nullptr; ///< the member that is open
};

/// The record of a member, of an empty one where the definition has none.
template <typename RECORD>
bool take(Record_Reader& reader, bool rehearsal, ACE_Refcounted_Auto_Ptr<RECORD, ACE_Thread_Mutex>& record) {
  bool over = false;
  if (!reader.was_read() && !(reader.begin() && reader.open(MEMBER_OBJECT, [](YAJL_Handler& parser) {
        return parser.handle_start_map_i();
      }) && reader.close([](YAJL_Handler& parser) { return parser.handle_end_map_i(); }, rehearsal, over)))
    return false;
  record = static_cast<YAJL_Parser<RECORD>*>(reader.parser())->result();
  return true;
}

} // namespace

bool read_definition_records(const std::string& text, Job_Definition_Type type, bool rehearsal, Module& module,
                             Job_Source_var& source, Job_Options_var& options, std::string& error) {
  const bool backup = type == JOB_DEFINITION_BACKUP;
  Record_Reader source_reader("source", source_members(!backup),
                              backup ? module.backup_source_parsers() : module.restore_source_parsers());
  Record_Reader options_reader("options", options_members(!backup),
                               backup ? module.backup_options_parsers() : module.restore_options_parsers());
  Definition_Driver driver(source_reader, options_reader, rehearsal);
  Job_Source_var new_source;
  Job_Options_var new_options;
  std::string reason;
  if (yajl_parse(text, driver, reason) && take(source_reader, rehearsal, new_source) &&
      take(options_reader, false, new_options)) {
    source = new_source;
    options = new_options;
    return true;
  }
  error = !source_reader.error().empty() ? source_reader.error() : options_reader.error();
  const size_t at = reason.rfind(" at byte ");
  if (error.empty())
    error = "job definition: " + reason;
  else if (at != std::string::npos)
    error += reason.substr(at);
  return false;
}
