#pragma once

#include <pybind11/functional.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

// What the files of the module kelm._kelm share. The package's Python part checks and converts the
// arguments, so the functions here take exact types.

namespace Lumenar::Core::Kelm::Python {

namespace py = pybind11;

/// One contiguous array of exactly this type.
template <class T>
using Column = py::array_t<T, py::array::c_style>;

template <class T>
std::span<const T> viewOf(const Column<T>& column) {
    return {column.data(), static_cast<std::size_t>(column.size())};
}

/// A new array with the same values, shape (values).
template <class T>
py::array_t<T> copied(std::span<const T> values) {
    py::array_t<T> array(static_cast<py::ssize_t>(values.size()));
    if (!values.empty()) std::memcpy(array.mutable_data(), values.data(), values.size_bytes());
    return array;
}
template <class T>
py::array_t<T> copied(const std::vector<T>& values) {
    return copied(std::span<const T>(values));
}

/// An array that owns the vector and copies nothing.
template <class T>
py::array_t<T> owned(std::vector<T>&& values) {
    auto* const kept = new std::vector<T>(std::move(values));
    const py::capsule owner(kept, [](void* data) { delete static_cast<std::vector<T>*>(data); });
    return py::array_t<T>(static_cast<py::ssize_t>(kept->size()), kept->data(), owner);
}

/// A column of one field of each item.
template <class T, class Items, class Field>
py::array_t<T> columnOf(const Items& items, Field field) {
    py::array_t<T> array(static_cast<py::ssize_t>(items.size()));
    T* out = array.mutable_data();
    for (const auto& item : items) *out++ = static_cast<T>(field(item));
    return array;
}

/// A text that may not be UTF-8, such as one of a damaged file.
inline py::str textOf(const std::string& text) {
    return py::reinterpret_steal<py::str>(
        PyUnicode_DecodeUTF8(text.data(), static_cast<py::ssize_t>(text.size()), "replace"));
}

/// A Python callable that C++ may copy, call and drop on any thread, with or without the GIL.
class SharedCallable {
public:
    explicit SharedCallable(py::function function)
        : function_(new py::function(std::move(function)), [](py::function* held) {
              const py::gil_scoped_acquire gil;
              delete held;
          }) {}

    /// Raises ArgumentTypeError for a result of another type.
    template <class Result, class... Arguments>
    Result call(Arguments&&... arguments) const {
        const py::gil_scoped_acquire gil;
        const py::object result = (*function_)(std::forward<Arguments>(arguments)...);
        try {
            return result.cast<Result>();
        } catch (const py::cast_error&) {
            const py::object error = py::module_::import("kelm.errors").attr("ArgumentTypeError");
            PyErr_Format(error.ptr(), "%.100R returned %.100R, must return a number",
                         function_->ptr(), result.ptr());
            throw py::error_already_set();
        }
    }

private:
    std::shared_ptr<py::function> function_;
};

void bindErrors(py::module_& module);
void bindNetwork(py::module_& module);
void bindSettings(py::module_& module);
void bindSimulation(py::module_& module);

}  // namespace Lumenar::Core::Kelm::Python
