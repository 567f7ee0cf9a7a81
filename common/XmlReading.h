#pragma once

#include "common/xml.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cstddef>
#include <exception>
#include <memory>
#include <string_view>
#include <vector>

namespace tarvik {

struct SingleByteEncoding;

/// @return a text of the library's; empty for null.
std::string_view view(const xmlChar* text);

/**
 * One reading: feeds the parser, counts what the document costs, and ends it when it is too much.
 * Handlers of the parser's events find it by `at`, and do no more once it has returned false.
 */
class XmlReading {
public:
    /**
     * @param handler  of events; where it has `serror`, that calls `refuse`.
     * @param options  for the parser, besides those that keep it from network and standard error.
     * @param visitor  who is told of what is read; null where a tree is built. Borrowed.
     * @throws std::bad_alloc
     */
    XmlReading(XmlSource source, const xmlSAXHandler& handler, int options, XmlVisitor* visitor);

    /// @throws what the visitor throws, and std::bad_alloc.
    XmlEnd run();

    /// What made the document malformed.
    const XmlProblem& problem() const { return problem_; }

    /// @return the tree of a document that is well-formed.
    XmlDoc take_tree();

    /// @param context  where an event occurs: that of the document, or one of an entity's own.
    static XmlReading& at(void* context);

    /// Every event comes through here. @return false when nothing more is to be done.
    bool event(std::size_t nodes = 0, std::size_t declarations = 0);

    /**
     * @param entity  what a reference names; null when it was not declared.
     * @return what it is to be replaced with: of a document that is given up, nothing to speak of.
     */
    xmlEntity* reference(xmlEntity* entity);
    xmlEntity* parameter_reference(xmlEntity* entity);

    // Events that cost more than others; as `event`.
    bool start_tag(int namespaces, int attributes);
    bool end_tag();
    bool values(const xmlEnumeration* value);

    /// Hands one event to the visitor. Nothing may unwind through the library.
    template <class Call>
    void visit(Call call)
    {
        if (!event())
            return;
        try {
            call(*visitor_);
        } catch (...) {
            fail();
        }
    }

    /// Nothing more is wanted.
    void stop();

    /// The library would go on without events after an error that makes a document malformed.
    void refuse(const xmlError& error);

private:
    struct FreeContext {
        void operator()(xmlParserCtxt* context) const noexcept;
    };

    static int read_some(void* self, char* buffer, int size);
    int fill(char* buffer, std::size_t size);
    std::size_t read_up_to(char* buffer, std::size_t size);
    void choose_encoding(std::string_view start);
    std::size_t decode(char* buffer, std::size_t count);
    bool affords(const xmlEntity* entity);
    int current_line() const { return context_->input == nullptr ? 0 : context_->input->line; }
    bool ended() const { return refused_ || stopped_ || failure_ || XmlSilence::out_of_memory(); }
    void fail();
    bool spend_event(bool cheap);
    void halt();

    XmlSource source_;
    xmlSAXHandler handler_;
    XmlVisitor* visitor_;
    const SingleByteEncoding* encoding_ = nullptr;  ///< null when the library decodes
    std::size_t bytes_ = 0;
    std::size_t bytesSinceEvent_ = 0;
    std::size_t nodes_ = 0;
    std::size_t declarations_ = 0;
    std::size_t events_ = 0;
    std::size_t entityText_ = 0;
    std::size_t parameterText_ = 0;
    std::size_t namespacesInScope_ = 0;
    std::vector<std::size_t> scopes_;  ///< namespaces declared by each open element
    bool refused_ = false;
    bool stopped_ = false;
    XmlProblem problem_;
    std::exception_ptr failure_;
    std::unique_ptr<xmlParserCtxt, FreeContext> context_;
    xmlParserCtxt* current_ = nullptr;  ///< where the last event occurred
};

}  // namespace tarvik
