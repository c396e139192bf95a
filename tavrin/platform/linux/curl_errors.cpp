#include "tavrin/platform/linux/curl_errors.h"

#include <cerrno>
#include <string>

namespace tavrin::platform::detail {

UrlError urlErrorFromCurl(CURLcode result, long osErrno, const char* errorBuffer) {
    using Code = UrlError::Code;
    Code code = Code::unknown;
    switch (result) {
        case CURLE_URL_MALFORMAT: code = Code::badURL; break;
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY: code = Code::cannotFindHost; break;
        case CURLE_COULDNT_CONNECT:
            // No route at all means no usable network, not a refusing server.
            code = (osErrno == ENETUNREACH || osErrno == ENETDOWN) ? Code::notConnectedToInternet
                                                                   : Code::cannotConnectToHost;
            break;
        case CURLE_OPERATION_TIMEDOUT: code = Code::timedOut; break;
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_ENGINE_NOTFOUND:
        case CURLE_SSL_ENGINE_SETFAILED:
        case CURLE_SSL_ENGINE_INITFAILED:
        case CURLE_SSL_SHUTDOWN_FAILED:
        case CURLE_SSL_CRL_BADFILE:
        case CURLE_SSL_ISSUER_ERROR:
        case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
        case CURLE_SSL_INVALIDCERTSTATUS:
        case CURLE_SSL_CLIENTCERT:
        case CURLE_USE_SSL_FAILED: code = Code::secureConnectionFailed; break;
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE: code = Code::networkConnectionLost; break;
        // Schemes are checked before a transfer starts, so this is an HTTP/0.9
        // reply or a redirect to a scheme we do not speak.
        case CURLE_UNSUPPORTED_PROTOCOL:
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_HTTP2:
        case CURLE_HTTP2_STREAM:
        case CURLE_HTTP3:
        case CURLE_BAD_CONTENT_ENCODING:
        case CURLE_TOO_MANY_REDIRECTS:
        case CURLE_FILESIZE_EXCEEDED: code = Code::badServerResponse; break;
        case CURLE_ABORTED_BY_CALLBACK: code = Code::cancelled; break;
        default: break;
    }
    return UrlError(code, curl_easy_strerror(result), errorBuffer ? std::string(errorBuffer) : std::string());
}

bool endsAfterInterimResponse(CURLcode result) {
    return result == CURLE_GOT_NOTHING || result == CURLE_UNSUPPORTED_PROTOCOL || result == CURLE_WEIRD_SERVER_REPLY ||
           result == CURLE_RECV_ERROR || result == CURLE_PARTIAL_FILE;
}

}  // namespace tavrin::platform::detail
