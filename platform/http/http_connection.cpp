#include "sdk/http/http_connection.h"

HTTP_Connection::~HTTP_Connection() = default;
