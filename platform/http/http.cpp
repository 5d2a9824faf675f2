#include "platform/http/http.h"

namespace Pelinor::Http {

const ResponseCode ResponseCode::Ok{200, "OK"};
const ResponseCode ResponseCode::BadRequest{400, "Bad Request"};
const ResponseCode ResponseCode::Forbidden{403, "Forbidden"};
const ResponseCode ResponseCode::MethodNotAllowed{405, "Method Not Allowed"};
const ResponseCode ResponseCode::LengthRequired{411, "Length Required"};
const ResponseCode ResponseCode::RequestEntityTooLarge{413, "Payload Too Large"};
const ResponseCode ResponseCode::RequestHeaderFieldsTooLarge{431,
                                                             "Request Header Fields Too Large"};
const ResponseCode ResponseCode::InternalServerError{500, "Internal Server Error"};

void RequestHandlerMixin::Refuse(const Ref<Request>& request, const Ref<Response>& response) {
    Service::Log(mixinLogger, Service::LogLevel::Verbose, "Method %1 not allowed on %2",
                 request->GetMethod(), request->GetUrl());
    response->SetHeader("Allow", "POST");
    response->Answer(ResponseCode::MethodNotAllowed);
}

}  // namespace Pelinor::Http
