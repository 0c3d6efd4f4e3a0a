#pragma once

#include "platform/http/http_message.h"
#include "platform/s3/answers.h"
#include "sdk/s3/s3_types.h"

#include <string>

/// One place decides what a failure means: whether repeating may help, and which errno it is.
namespace s3 {

/// No answer, or a broken one. `what` names the request for the message.
S3_Error map_failure(const HTTP_Failure& failure, const std::string& what);
/// An answer that is no success, or an error document under whatever status. Where the document says nothing, the code
/// is made from the status.
S3_Error map_answer(int status, const Error_Document& document, const std::string& what);

/// Whom a failure says something about.
enum class Blame {
  OBJECT,  ///< what was asked for, or nobody else: the service has answered
  SERVICE, ///< the service, the way there, or the keys: it would have been the same for any other object
  DENIAL   ///< either: the object is denied, or the keys are good for nothing any more
};
Blame blames(const S3_Error& error);

/// The service asks for fewer requests.
bool is_busy(const S3_Error& error);

} // namespace s3
