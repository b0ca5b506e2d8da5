#include "tools/kelmctl/export/page/Page.h"

#include <openssl/evp.h>

#include <chrono>
#include <map>
#include <nlohmann/json.hpp>
#include <string_view>

#include "tools/kelmctl/JsonText.h"
#include "tools/kelmctl/export/page/HtmlWriter.h"
#include "tools/kelmctl/export/page/PageFiles.h"
#include "tools/kelmctl/export/page/PageJson.h"
#include "tools/kelmctl/export/page/PageView.h"

namespace kelm::ctl {

namespace {

// As a policy names the one style or script that it lets pass.
std::string hashSource(std::string_view text) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned char base64[2 * EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    // Without a digest the policy lets nothing pass: the page stays a plain one.
    if (EVP_Digest(text.data(), text.size(), digest, &size, EVP_sha256(), nullptr) != 1) size = 0;
    const int length = EVP_EncodeBlock(base64, digest, static_cast<int>(size));
    return "'sha256-" +
           std::string(reinterpret_cast<const char*>(base64), static_cast<size_t>(length)) + "'";
}

// Nothing but this page's own style and script, no other site, no form, no frame, and no text that
// becomes a script.
std::string makePolicy() {
    return "default-src 'none'; style-src " + hashSource(kPageStyle) + "; script-src " +
           hashSource(kPageScript) +
           "; connect-src 'self'; img-src data:; base-uri 'none'; form-action 'none'; "
           "frame-ancestors 'none'; require-trusted-types-for 'script'; trusted-types kelm";
}

std::string escaped(std::string_view text) {
    HtmlWriter html;
    html.text(text);
    return html.str();
}

// Replaces each {name} that the map has; what is put in is not looked at again.
std::string fill(std::string_view form, const std::map<std::string_view, std::string_view>& parts) {
    std::string result;
    while (!form.empty()) {
        const size_t open = form.find('{');
        const size_t close = open == form.npos ? form.npos : form.find('}', open);
        if (close == form.npos) break;
        const auto part = parts.find(form.substr(open + 1, close - open - 1));
        const bool isKnown = part != parts.end();
        result += form.substr(0, isKnown ? open : close + 1);
        if (isKnown) result += part->second;
        form.remove_prefix(close + 1);
    }
    return result.append(form);
}

}  // namespace

std::unique_ptr<PageRoutes> makePageRoutes() { return std::make_unique<Page>(); }

Page::Page() : m_policy(makePolicy()) {}

void Page::remember(const ExportSnapshot& snapshot) {
    MutexLock lock(m_mutex);
    m_history.add(snapshot, std::chrono::steady_clock::now());
}

HttpAnswer Page::page(const ExportSnapshot& snapshot) const {
    std::string title;
    std::string body;
    {
        MutexLock lock(m_mutex);
        const PageView view(snapshot, m_history);
        title = escaped(view.title());
        body = view.body();
    }
    return {
        200,
        "text/html; charset=utf-8",
        fill(kPageHtml,
             {{"title", title}, {"style", kPageStyle}, {"script", kPageScript}, {"body", body}}),
        {{"Content-Security-Policy", m_policy},
         {"Referrer-Policy", "no-referrer"},
         {"Cross-Origin-Resource-Policy", "same-origin"}}};
}

HttpAnswer Page::snapshotJson(const ExportSnapshot& snapshot) const {
    return {200,
            "application/json",
            ctl::snapshotJson(snapshot),
            {{"Cross-Origin-Resource-Policy", "same-origin"}}};
}

std::string Page::event(const ExportSnapshot& snapshot) const {
    MutexLock lock(m_mutex);
    if (m_eventNumber != snapshot.number) {
        const PageView view(snapshot, m_history);
        // JSON on one line: nothing in it can end the event.
        m_event = "data: " + toJsonText({{"title", view.title()}, {"body", view.body()}}) + "\n\n";
        m_eventNumber = snapshot.number;
    }
    return m_event;
}

}  // namespace kelm::ctl
