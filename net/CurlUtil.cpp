#include "net/CurlUtil.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <mutex>

namespace ndpx::net {

namespace {

std::string urlPart(CURLU* url, CURLUPart part, unsigned flags = 0) {
    char* text = nullptr;
    if (curl_url_get(url, part, &text, flags) != CURLUE_OK || text == nullptr) {
        return {};
    }
    std::string out(text);
    curl_free(text);
    return out;
}

struct FetchSink {
    std::string* body;
    std::size_t maxBytes;
    bool tooLarge = false;
};

std::size_t fetchWrite(char* data, std::size_t size, std::size_t count, void* user) {
    auto* sink = static_cast<FetchSink*>(user);
    const std::size_t n = size * count;
    if (sink->body->size() + n > sink->maxBytes) {
        sink->tooLarge = true;
        return 0;
    }
    sink->body->append(data, n);
    return n;
}

}  // namespace

bool ensureCurlInitialized() {
    static std::once_flag once;
    static CURLcode result = CURLE_FAILED_INIT;
    std::call_once(once, [] { result = curl_global_init(CURL_GLOBAL_DEFAULT); });
    return result == CURLE_OK;
}

bool curlUsesOpenSsl() {
    const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
    return info != nullptr && info->ssl_version != nullptr &&
           std::strncmp(info->ssl_version, "OpenSSL", 7) == 0;
}

std::optional<ParsedUrl> parseUrl(const std::string& text) {
    ensureCurlInitialized();
    CurlUrlPtr url(curl_url());
    if (!url || text.empty() ||
        curl_url_set(url.get(), CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME) !=
            CURLUE_OK) {
        return std::nullopt;
    }
    ParsedUrl out;
    out.scheme = urlPart(url.get(), CURLUPART_SCHEME);
    std::transform(out.scheme.begin(), out.scheme.end(), out.scheme.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    out.host = urlPart(url.get(), CURLUPART_HOST);
    if (out.host.size() >= 2 && out.host.front() == '[' && out.host.back() == ']') {
        out.host = out.host.substr(1, out.host.size() - 2);
    }
    if (out.host.empty() && out.scheme != "file") {
        return std::nullopt;
    }
    const std::string port = urlPart(url.get(), CURLUPART_PORT, CURLU_DEFAULT_PORT);
    if (!port.empty()) {
        const unsigned long value = std::strtoul(port.c_str(), nullptr, 10);
        if (value == 0 || value > 65535) {
            return std::nullopt;
        }
        out.port = static_cast<std::uint16_t>(value);
    }
    out.path = urlPart(url.get(), CURLUPART_PATH);
    if (out.path.empty()) {
        out.path = "/";
    }
    out.query = urlPart(url.get(), CURLUPART_QUERY);
    return out;
}

CURLcode runTransfer(CURL* easy, CancelToken* cancel, const TransferTick& tick) {
    CurlMultiPtr multi(curl_multi_init());
    if (!multi) {
        return CURLE_OUT_OF_MEMORY;
    }
    if (curl_multi_add_handle(multi.get(), easy) != CURLM_OK) {
        return CURLE_FAILED_INIT;
    }
    CURLcode result = CURLE_OK;
    {
        CancelToken::Waker waker(cancel, [m = multi.get()] { curl_multi_wakeup(m); });
        for (bool done = false; !done;) {
            if (cancel != nullptr && cancel->cancelled()) {
                result = CURLE_ABORTED_BY_CALLBACK;
                break;
            }
            int running = 0;
            const CURLMcode mc = curl_multi_perform(multi.get(), &running);
            if (mc != CURLM_OK) {
                result = mc == CURLM_OUT_OF_MEMORY ? CURLE_OUT_OF_MEMORY : CURLE_FAILED_INIT;
                break;
            }
            int queued = 0;
            while (CURLMsg* msg = curl_multi_info_read(multi.get(), &queued)) {
                if (msg->msg == CURLMSG_DONE && msg->easy_handle == easy) {
                    result = msg->data.result;
                    done = true;
                }
            }
            if (done) {
                break;
            }
            std::chrono::milliseconds wait(1000);
            if (tick) {
                const CURLcode stop = tick(wait);
                if (stop != CURLE_OK) {
                    result = stop;
                    break;
                }
            }
            const auto ms = std::clamp<long long>(wait.count(), 1, 1000);
            curl_multi_poll(multi.get(), nullptr, 0, static_cast<int>(ms), nullptr);
        }
    }
    curl_multi_remove_handle(multi.get(), easy);
    return result;
}

bool fetchText(const std::string& url, std::chrono::milliseconds timeout, std::size_t maxBytes,
               CancelToken* cancel, std::string& body, std::string& error) {
    body.clear();
    error.clear();
    if (!ensureCurlInitialized()) {
        error = "curl_global_init failed";
        return false;
    }
    CurlEasyPtr easy(curl_easy_init());
    if (!easy) {
        error = "curl_easy_init failed";
        return false;
    }
    char errorBuffer[CURL_ERROR_SIZE] = {};
    FetchSink sink{&body, maxBytes};
    CURL* h = easy.get();
    curl_easy_setopt(h, CURLOPT_URL, url.c_str());
    curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "file,http,https");
    curl_easy_setopt(h, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(h, CURLOPT_MAXREDIRS, 3L);
    curl_easy_setopt(h, CURLOPT_PROXY, "");
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, static_cast<long>(timeout.count()));
    curl_easy_setopt(h, CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(h, CURLOPT_USERAGENT, "BWAgent");
    curl_easy_setopt(h, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(maxBytes));
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, fetchWrite);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &sink);
    curl_easy_setopt(h, CURLOPT_ERRORBUFFER, errorBuffer);
    const CURLcode rc = runTransfer(h, cancel, nullptr);
    if (rc == CURLE_OK) {
        return true;
    }
    if (sink.tooLarge || rc == CURLE_FILESIZE_EXCEEDED) {
        error = "larger than " + std::to_string(maxBytes) + " bytes";
    } else if (rc == CURLE_ABORTED_BY_CALLBACK) {
        error = "cancelled";
    } else {
        error = errorBuffer[0] != '\0' ? errorBuffer : curl_easy_strerror(rc);
    }
    body.clear();
    return false;
}

}  // namespace ndpx::net
