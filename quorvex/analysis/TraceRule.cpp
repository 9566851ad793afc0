#include "quorvex/analysis/TraceRule.h"

#include "quorvex/analysis/TraceRules.h"

#include <algorithm>
#include <bit>
#include <charconv>

namespace Quorvex {

RuleNumber RuleNumber::as(RuleNumberSort other) const {
    if (sort == other || (sort == RuleNumberSort::Unsigned && other == RuleNumberSort::Signed))
        return {other, sort == other ? bits : std::min(bits, ~std::uint64_t{0} >> 1)};
    const double value = sort == RuleNumberSort::Signed ? static_cast<double>(std::bit_cast<std::int64_t>(bits))
                                                        : static_cast<double>(bits);
    return {other, std::bit_cast<std::uint64_t>(value)};
}

bool RuleNumber::operator<=(const RuleNumber& other) const {
    switch (sort) {
    case RuleNumberSort::Signed:
        return std::bit_cast<std::int64_t>(bits) <= std::bit_cast<std::int64_t>(other.bits);
    case RuleNumberSort::Real:
        return std::bit_cast<double>(bits) <= std::bit_cast<double>(other.bits);
    case RuleNumberSort::Unsigned:
        break;
    }
    return bits <= other.bits;
}

std::string RuleNumber::text() const {
    if (sort == RuleNumberSort::Signed)
        return std::to_string(std::bit_cast<std::int64_t>(bits));
    if (sort == RuleNumberSort::Unsigned)
        return std::to_string(bits);
    char text[32];
    return {text, std::to_chars(text, text + sizeof text, std::bit_cast<double>(bits)).ptr};
}

namespace {

/// Takes the words of a line.
class Words {
public:
    explicit Words(std::string_view line) : m_line(line) {
        skip();
        m_all = m_line;
    }

    bool isAtEnd() const { return m_line.empty() || m_line[0] == '#'; }
    /// Takes a word, if it is the next one.
    bool take(std::string_view word) {
        if (next() != word)
            return false;
        drop(word.size());
        return true;
    }
    void expect(std::string_view word) {
        if (!take(word))
            fail("'" + std::string(word) + "'");
    }
    std::string takeName() {
        if (isAtEnd() || m_line[0] != '"')
            fail("a name in double quotes");
        std::string name;
        for (std::size_t at = 1; at < m_line.size(); ++at) {
            if (m_line[at] == '"') {
                drop(at + 1);
                return name;
            }
            if (m_line[at] == '\\' && at + 1 < m_line.size() && (m_line[at + 1] == '"' || m_line[at + 1] == '\\'))
                ++at;
            name += m_line[at];
        }
        throw RuleFault{0, "a name lacks the quote at its end"};
    }
    TimeLength takeTime() {
        const std::optional<TimeLength> time = TimeLength::of(next());
        if (!time)
            fail("a time, as 5ms");
        drop(next().size());
        return *time;
    }
    RuleNumber takeNumber() {
        const std::string_view word = next();
        RuleNumber number;
        double real = 0;
        std::int64_t below = 0;
        if (word.find('.') != word.npos && parse(word, real))
            number = {RuleNumberSort::Real, std::bit_cast<std::uint64_t>(real)};
        else if (word.starts_with('-') && parse(word, below))
            number = {RuleNumberSort::Signed, std::bit_cast<std::uint64_t>(below)};
        else if (!parse(word, number.bits))
            fail("a number");
        drop(word.size());
        return number;
    }
    RuleNumber takeCount() {
        const std::string_view before = m_line;
        const RuleNumber number = takeNumber();
        if (number.sort != RuleNumberSort::Unsigned) {
            m_line = before;
            fail("a whole number from 0 on");
        }
        return number;
    }
    /// All that has been taken.
    std::string_view taken() const {
        const std::string_view text = m_all.substr(0, m_all.size() - m_line.size());
        return text.substr(0, text.find_last_not_of(kBlanks) + 1);
    }
    [[noreturn]] void fail(const std::string& expected) const {
        const std::string found = isAtEnd() ? "the end of the line" : "'" + std::string(next()) + "'";
        throw RuleFault{0, "expected " + expected + ", found " + found};
    }

private:
    template <class Value> static bool parse(std::string_view word, Value& value) {
        const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
        return error == std::errc() && end == word.data() + word.size();
    }
    std::string_view next() const {
        if (isAtEnd())
            return {};
        const bool isName = m_line[0] == '"';
        const std::size_t end = m_line.find_first_of(isName ? "\"" : " \t\r#\"", 1);
        return m_line.substr(0, isName && end != m_line.npos ? end + 1 : end);
    }
    void drop(std::size_t count) {
        m_line.remove_prefix(count);
        skip();
    }
    void skip() { m_line.remove_prefix(std::min(m_line.find_first_not_of(kBlanks), m_line.size())); }

    static constexpr const char* kBlanks = " \t\r";

    std::string_view m_all;
    std::string_view m_line; ///< what is left of it
};

/// never | at most N times | at least N times
void parseTimes(Words& words, TraceRule& rule) {
    rule.demand = RuleDemand::Times;
    if (words.take("never")) {
        rule.most = RuleNumber();
        return;
    }
    words.expect("at");
    if (words.take("most"))
        rule.most = words.takeCount();
    else if (words.take("least"))
        rule.least = words.takeCount();
    else
        words.fail("'most' or 'least'");
    if (!words.take("time"))
        words.expect("times");
}

/// longer than TIME | shorter than TIME
void parseLength(Words& words, TraceRule& rule) {
    rule.demand = RuleDemand::Length;
    const bool isLonger = words.take("longer");
    if (!isLonger && !words.take("shorter"))
        words.fail("'longer' or 'shorter'");
    words.expect("than");
    (isLonger ? rule.longest : rule.shortest) = words.takeTime();
}

/// before event NAME [within TIME] | after event NAME [within TIME] | as parseTimes
void parseOrder(Words& words, TraceRule& rule) {
    const bool isBefore = words.take("before");
    if (!isBefore && !words.take("after")) {
        parseTimes(words, rule);
        return;
    }
    rule.demand = isBefore ? RuleDemand::Before : RuleDemand::After;
    words.expect("event");
    rule.other = words.takeName();
    if (words.take("within"))
        rule.longest = words.takeTime();
}

/// between N and N | never above N | never below N
void parseValue(Words& words, TraceRule& rule) {
    rule.demand = RuleDemand::Value;
    if (words.take("between")) {
        rule.least = words.takeNumber();
        words.expect("and");
        rule.most = words.takeNumber();
    } else {
        words.expect("never");
        const bool isAbove = words.take("above");
        if (!isAbove && !words.take("below"))
            words.fail("'above' or 'below'");
        (isAbove ? rule.most : rule.least) = words.takeNumber();
    }
    const RuleNumberSort sort = std::max(rule.least.value_or(RuleNumber()).sort, rule.most.value_or(RuleNumber()).sort);
    for (std::optional<RuleNumber>* bound : {&rule.least, &rule.most}) {
        if (*bound)
            **bound = (*bound)->as(sort);
    }
    if (rule.least && rule.most && !(*rule.least <= *rule.most))
        throw RuleFault{0, "no number is between these"};
}

/// A rule by the grammar that TraceRules tells. Throws a RuleFault without a line.
void parseRule(Words& words, TraceRule& rule) {
    if (words.take("function")) {
        rule.about = RuleAbout::Function;
        rule.name = words.takeName();
        if (words.take("called"))
            parseTimes(words, rule);
        else if (words.take("never"))
            parseLength(words, rule);
        else
            words.fail("'never' or 'called'");
    } else if (words.take("depth")) {
        rule.about = RuleAbout::Depth;
        rule.demand = RuleDemand::Value;
        words.expect("never");
        words.expect("above");
        rule.most = words.takeCount();
    } else if (words.take("event")) {
        rule.about = RuleAbout::Event;
        rule.name = words.takeName();
        parseOrder(words, rule);
    } else if (words.take("message")) {
        rule.about = RuleAbout::Message;
        rule.name = words.takeName();
        parseTimes(words, rule);
    } else if (words.take("counter")) {
        rule.about = RuleAbout::Counter;
        rule.name = words.takeName();
        parseValue(words, rule);
    } else if (const bool isThread = words.take("thread"); isThread || words.take("core")) {
        rule.about = isThread ? RuleAbout::ThreadGap : RuleAbout::CoreGap;
        words.expect("gap");
        words.expect("never");
        words.expect("longer");
        words.expect("than");
        rule.demand = RuleDemand::Length;
        rule.longest = words.takeTime();
    } else if (words.take("no")) {
        rule.about = words.take("gap") ? RuleAbout::Damage : RuleAbout::Loss;
        if (rule.about == RuleAbout::Loss)
            words.expect("loss");
    } else {
        words.fail("function, depth, event, message, counter, thread, core or no");
    }
    if (!words.isAtEnd())
        words.fail("the end of the line");
}

} // namespace

std::vector<TraceRule> parseRules(std::string_view text) {
    std::vector<TraceRule> rules;
    for (std::size_t line = 1; !text.empty(); ++line) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        Words words(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
        if (words.isAtEnd())
            continue;
        TraceRule& rule = rules.emplace_back();
        rule.line = line;
        try {
            parseRule(words, rule);
        } catch (RuleFault& fault) {
            fault.line = line;
            throw;
        }
        rule.text = words.taken();
    }
    return rules;
}

} // namespace Quorvex
