#include "tools/kelmctl/ExplainCommand.h"

#include <iostream>

#include "tools/kelmctl/EventHistory.h"
#include "tools/kelmctl/Explanation.h"
#include "tools/kelmctl/Interruption.h"
#include "tools/kelmctl/SafeText.h"
#include "tools/kelmctl/StatusSource.h"

namespace kelm::ctl {

int runExplain(const ExplainOptions& options) {
    const bool utf8 = useTerminalLocale();
    Interruption interruption;
    return interruption.run([&] {
        StatusSource source(interruption);
        const StatusLook look = client::take(source.look());
        client::require(source.leave());
        const EventHistory history = client::take(fetchHistory(kAllEvents));
        const Explanation explanation = explain(look, history, options.graph);
        std::cout << (options.json ? explanationJson(explanation)
                                   : explanationText(explanation, utf8))
                  << std::flush;
        return std::cout ? 0 : 1;
    });
}

}  // namespace kelm::ctl
