#include "milter/support/FakeLibmilter.h"

#include <new>
#include <string>

namespace {

std::string text(const char* value) {
    return value == nullptr ? "(null)" : value;
}

int change(SMFICTX* context, const std::string& call) {
    if (context->callsUntilFailure == 0)
        return MI_FAILURE;
    if (context->callsUntilFailure > 0)
        --context->callsUntilFailure;
    context->calls.push_back(call);
    return MI_SUCCESS;
}

} // namespace

extern "C" {

void* smfi_getpriv(SMFICTX* context) {
    return context->kept;
}

int smfi_setpriv(SMFICTX* context, void* kept) {
    context->kept = kept;
    return MI_SUCCESS;
}

char* smfi_getsymval(SMFICTX* context, char* name) {
    const auto found = context->macros.find(name);
    return found == context->macros.end() ? nullptr : found->second.data();
}

int smfi_setsymlist(SMFICTX* context, int step, char* names) {
    context->calls.push_back("setsymlist " + std::to_string(step) + ' ' + text(names));
    return MI_SUCCESS;
}

int smfi_setreply(SMFICTX* context, char* code, char* enhanced, char* line) {
    context->calls.push_back("setreply " + text(code) + ' ' + text(enhanced) + ' ' + text(line));
    return MI_SUCCESS;
}

int smfi_addheader(SMFICTX* context, char* name, char* value) {
    return change(context, "addheader " + text(name) + ':' + text(value));
}

int smfi_insheader(SMFICTX* context, int index, char* name, char* value) {
    return change(context, "insheader " + std::to_string(index) + ' ' + text(name) + ':' + text(value));
}

int smfi_chgheader(SMFICTX* context, char* name, int index, char* value) {
    return change(context, "chgheader " + text(name) + ' ' + std::to_string(index) + ' ' + text(value));
}

int smfi_delrcpt(SMFICTX* context, char* recipient) {
    return change(context, "delrcpt " + text(recipient));
}

int smfi_replacebody(SMFICTX* context, unsigned char* octets, int length) {
    if (context->throwsAtBody)
        throw std::bad_alloc();
    const int result = change(context, "replacebody " + std::to_string(length));
    if (result == MI_SUCCESS && context->keepsBody)
        context->body.append(reinterpret_cast<const char*>(octets), static_cast<std::size_t>(length));
    return result;
}

int smfi_progress(SMFICTX* context) {
    ++context->progress;
    return MI_SUCCESS;
}

// What the worker calls; nothing here runs one.
int smfi_setconn(char* /*socket*/) {
    return MI_FAILURE;
}
int smfi_register(smfiDesc /*callbacks*/) {
    return MI_FAILURE;
}
int smfi_opensocket(bool /*remove*/) {
    return MI_FAILURE;
}
int smfi_settimeout(int /*seconds*/) {
    return MI_FAILURE;
}
int smfi_main() {
    return MI_FAILURE;
}
int smfi_stop() {
    return MI_FAILURE;
}
}
