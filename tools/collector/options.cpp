#include "options.h"

#include <charconv>
#include <cstdlib>
#include <stdexcept>

namespace tavrin::collector {

const char* const kUsage =
    "usage: tavrin-collector [options]\n"
    "  A local tracking server: accepts data and consent submissions (POST /) and\n"
    "  debug reports (POST /monitor), stores them in SQLite and shows them at /ui/.\n"
    "\n"
    "  --host ADDRESS      address to bind (default 127.0.0.1); requests naming another host\n"
    "                      than this one or loopback are refused\n"
    "  --port N            port to bind; 0 picks a free one (default 8787)\n"
    "  --data-dir DIR      where the request database lives (default ./tavrin-collector-data)\n"
    "  --token T           require \"Authorization: Bearer T\" on POST / and on the API and the\n"
    "                      debug view (open /ui/#token=T); better given in the environment\n"
    "                      as TAVRIN_COLLECTOR_TOKEN, which other users cannot list\n"
    "  --tls-cert FILE     serve HTTPS with this PEM certificate ...\n"
    "  --tls-key FILE      ... and this PEM private key\n"
    "  --fail-with STATUS  answer every submission with STATUS (after storing it)\n"
    "  --delay MS          wait MS milliseconds before answering a submission\n"
    "  --max-body BYTES    largest accepted body (default 8388608); larger gets 413\n"
    "  --help              this text\n";

namespace {

long long number(const std::string& option, const std::string& text, long long min, long long max) {
    long long value = 0;
    const auto* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || rest != end || value < min || value > max)
        throw std::invalid_argument(option + " expects a whole number from " + std::to_string(min) + " to " +
                                    std::to_string(max) + ", got \"" + text + "\"");
    return value;
}

}  // namespace

Options parseOptions(const std::vector<std::string>& arguments) {
    Options options;
    if (const char* token = std::getenv("TAVRIN_COLLECTOR_TOKEN"); token && *token) options.token = token;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& option = arguments[i];
        if (option == "--help" || option == "-h") {
            options.help = true;
            continue;
        }
        if (option.rfind("--", 0) != 0) throw std::invalid_argument("unexpected argument \"" + option + "\"");
        if (i + 1 >= arguments.size()) throw std::invalid_argument(option + " needs a value");
        const std::string& value = arguments[++i];
        if (option == "--host")
            options.host = value;
        else if (option == "--port")
            options.port = static_cast<int>(number(option, value, 0, 65535));
        else if (option == "--data-dir")
            options.dataDir = value;
        else if (option == "--token")
            options.token = value;
        else if (option == "--tls-cert")
            options.tlsCert = value;
        else if (option == "--tls-key")
            options.tlsKey = value;
        else if (option == "--fail-with")
            options.failWith = static_cast<int>(number(option, value, 100, 599));
        else if (option == "--delay")
            options.delayMs = static_cast<int>(number(option, value, 0, 600000));
        else if (option == "--max-body")
            options.maxBodyBytes = static_cast<std::size_t>(number(option, value, 1, 1LL << 30));
        else
            throw std::invalid_argument("unknown option " + option);
    }
    if (options.tlsCert.has_value() != options.tlsKey.has_value())
        throw std::invalid_argument("--tls-cert and --tls-key go together");
    if (options.token && options.token->empty()) throw std::invalid_argument("--token must not be empty");
    return options;
}

}  // namespace tavrin::collector
