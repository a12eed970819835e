#include "openssl/GeneralNames.h"

#include "openssl/ErrorQueue.h"

#include <algorithm>

namespace Norvane::Crypto::openssl {

namespace {

int compare(const GENERAL_NAME* left, const GENERAL_NAME* right) {
    return GENERAL_NAME_cmp(const_cast<GENERAL_NAME*>(left), const_cast<GENERAL_NAME*>(right));
}

/// An order of names that exist. `GENERAL_NAME_cmp` gives one among names of one type; names, and values of other
/// names, that differ in their types are unequal to it both ways round.
bool standsBefore(const GENERAL_NAME* left, const GENERAL_NAME* right) {
    if (left == nullptr || right == nullptr) {
        return left == nullptr && right != nullptr;
    }
    if (left->type != right->type) {
        return left->type < right->type;
    }
    if (left->type == GEN_OTHERNAME) {
        const int leftType = left->d.otherName->value->type;
        const int rightType = right->d.otherName->value->type;
        if (leftType != rightType) {
            return leftType < rightType;
        }
    }
    return compare(left, right) < 0;
}

bool equalsItself(const GENERAL_NAME* name) {
    return name == nullptr || compare(name, name) == 0;
}

} // namespace

OrderedNames orderedNames(const GENERAL_NAMES* names) {
    const ErrorMark mark;
    OrderedNames ordered;
    const int count = std::max(0, sk_GENERAL_NAME_num(names)); // -1 without a stack
    ordered.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        if (const GENERAL_NAME* name = sk_GENERAL_NAME_value(names, i); equalsItself(name)) {
            ordered.push_back(name);
        }
    }
    std::sort(ordered.begin(), ordered.end(), standsBefore);
    return ordered;
}

bool contains(const OrderedNames& names, const GENERAL_NAME* name) {
    const ErrorMark mark;
    return equalsItself(name) && std::binary_search(names.begin(), names.end(), name, standsBefore);
}

} // namespace Norvane::Crypto::openssl
