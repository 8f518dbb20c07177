// Log contexts and levels: the process-wide contexts and level tables, what a host sets and reads
// in them, and the facts about each level. Owns all state of the logging module except the line
// buffer.
#include "log.h"

#include <algorithm>
#include <cassert>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <strings.h>
#include <syslog.h>
#include <type_traits>

#include "log_internal.h"

static_assert(std::is_trivially_copyable_v<log_ctx>);

constinit log_ctx g_log = {};
constinit log_ctx g_access_log = {};
constinit log_ctx g_stats_log = {};

constinit log_module_ctx g_logmod = {};
constinit int g_mod_ll[LL_MAX_MODULES] = {};
constinit int g_sec_ll[LL_MAX_SECTIONS] = {};
constinit int g_sigctx = 0;

static constinit int g_saved_ll[LL_MAX_MODULES] = {};
static constinit bool mlevels_pushed = false;

// ---- facts about levels ------------------------------------------------------------------------

namespace {
struct level_facts {
    int level;
    int priority; // of syslog
    const char* tag;
    const char* name;
};

constexpr level_facts levels[] = {
    {PANIC_level, LOG_ALERT, "(PNC)", "panic"},
    {ERR_level, LOG_ERR, "(ERR)", "error"},
    // intended: "ctitical" has been the name for so long that readers of logs match it, and the
    // priority is above that of the more severe ERR_level.
    {CRIT_level, LOG_CRIT, "(CRI)", "ctitical"},
    {WARN_level, LOG_WARNING, "(WRN)", "warning"},
    {NORM_level, LOG_NOTICE, "(NRM)", "normal"},
    {INFO_level, LOG_INFO, "(INF)", "info"},
    {DEBUG_level, LOG_DEBUG, "(DBG)", "debug"},
    {SECTION_level, LOG_DEBUG, "(SCT)", "section"},
};
constexpr level_facts no_level = {0, LOG_DEBUG, "( ? )", "??"};

struct level_word {
    const char* text;
    int level;
};

constexpr level_word level_words[] = {
    {"err", ERR_level},       {"error", ERR_level},   {"crit", CRIT_level},
    {"critical", CRIT_level}, {"warn", WARN_level},   {"warning", WARN_level},
    {"norm", NORM_level},     {"normal", NORM_level}, {"info", INFO_level},
    {"debug", DEBUG_level},   {"dbg", DEBUG_level},   {"section", SECTION_level},
    {"sect", SECTION_level},
};
} // namespace

static const level_facts& facts_of(int level) {
    const auto* found = std::find_if(std::begin(levels), std::end(levels),
                                     [level](const level_facts& f) { return f.level == level; });
    return found != std::end(levels) ? *found : no_level;
}

const char* log_level_str(int level) {
    return facts_of(level).name;
}

const char* level_tag(int level) {
    return facts_of(level).tag;
}

int syslog_priority(int level) {
    return facts_of(level).priority;
}

int match_log_level(const char* text, int* level) {
    for (const level_word& word : level_words) {
        if (strcasecmp(text, word.text) == 0) {
            *level = word.level;
            return 0;
        }
    }
    return -1;
}

int read_level_env(const char* name, int dflt) {
    const char* text = getenv(name);
    if (text == nullptr)
        return dflt;
    const long level = strtol(text, nullptr, 10);
    if (level != 0)
        return static_cast<int>(std::clamp<long>(level, INT_MIN, INT_MAX));
    return strcmp(text, "0") == 0 ? 0 : dflt;
}

// ---- contexts ----------------------------------------------------------------------------------

void glog_init(const char* app_tag) {
    assert(app_tag);
    snprintf(g_logmod.app_tag, sizeof(g_logmod.app_tag), "%s", app_tag);
    g_logmod.is_ready = true;
}

void log_default(log_ctx* log, FILE* fp) {
    log->fp = fp;
    if (log == &g_log && !log->llst.sec_ll_set)
        log_set_sections(log, SECTION_level);
}

void log_mirror(log_ctx* log, FILE* fp) {
    log->mirror_fp = fp;
    if (fp != nullptr)
        setvbuf(fp, nullptr, _IOLBF, 0);
}

FILE* log_fp(const log_ctx* log) {
    return log->fp;
}

FILE* log_mirror_fp(const log_ctx* log) {
    return log->mirror_fp;
}

void log_timefmt(log_ctx* log, std::uint32_t flags) {
    log->time_format = flags;
}

void log_set_pid(log_ctx* log, pid_t pid) {
    log->pid = pid;
}

pid_t log_get_pid(const log_ctx* log) {
    return log->pid;
}

void log_set_group(log_ctx* log, std::uint64_t group) {
    log->group.num64 = group;
}

std::uint64_t log_get_group(const log_ctx* log) {
    return log->group.num64;
}

lard_t log_set_lard(log_ctx* log, lard_t ring) {
    const lard_t previous = log->lh;
    log->lh = ring;
    return previous;
}

// ---- syslog ------------------------------------------------------------------------------------

void config_syslog(log_ctx* log, const char* ident, int option, int facility) {
    log->syslg.option = option;
    log->syslg.facility = facility;
    openlog(ident, option, facility);
    log->syslg.enabled = true;
}

void disable_syslog(log_ctx* log) {
    closelog();
    log->syslg.enabled = false;
}

void glog_enable_syslog(const char* ident) {
    config_syslog(&g_log, ident, LOG_PID | LOG_CONS, LOG_LOCAL0);
}

void glog_disable_syslog() {
    disable_syslog(&g_log);
}

// ---- levels of modules and sections ------------------------------------------------------------

void log_set_modules(log_ctx* log, int level) {
    std::fill(std::begin(g_mod_ll), std::end(g_mod_ll), level);
    log->llst.mod_ll_set = 1;
}

void log_set_sections(log_ctx* log, int level) {
    std::fill(std::begin(g_sec_ll), std::end(g_sec_ll), level);
    log->llst.sec_ll_set = 1;
}

void log_push_mlevels() {
    if (mlevels_pushed)
        return;
    std::copy(std::begin(g_mod_ll), std::end(g_mod_ll), std::begin(g_saved_ll));
    mlevels_pushed = true;
}

void log_pop_mlevels() {
    if (!mlevels_pushed)
        return;
    std::copy(std::begin(g_saved_ll), std::end(g_saved_ll), std::begin(g_mod_ll));
    mlevels_pushed = false;
}

int log_enter_section(loglevel_ctx* ll, int section) {
    constexpr int top = static_cast<int>(LL_STACK_DEPTH) - 1;
    if (section < 0 || section >= static_cast<int>(LL_MAX_SECTIONS) || ll->sec_sp >= top)
        return -1;
    ll->sec_stack[++ll->sec_sp] = ll->sec;
    ll->sec = section;
    return 0;
}

int log_leave_section(loglevel_ctx* ll) {
    if (ll->sec_sp < 0)
        return -1;
    ll->sec = ll->sec_stack[ll->sec_sp--];
    return 0;
}
