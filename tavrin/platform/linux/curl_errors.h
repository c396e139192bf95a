#pragma once
// How libcurl's results become the transport's errors.

#include <curl/curl.h>

#include "tavrin/platform/http_client.h"

namespace tavrin::platform::detail {

// The UrlError for a failed transfer; osErrno is CURLINFO_OS_ERRNO and
// errorBuffer the transfer's CURLOPT_ERRORBUFFER (or null).
UrlError urlErrorFromCurl(CURLcode result, long osErrno, const char* errorBuffer);

// Failures after which a server's last word, an interim 1xx status, stands as
// its answer: HTTP has no final 1xx status, so libcurl waits for one, and the
// connection ending (or something unparsable following) ends the wait.
bool endsAfterInterimResponse(CURLcode result);

}  // namespace tavrin::platform::detail
