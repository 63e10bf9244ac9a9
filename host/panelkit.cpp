/*
 * panelkit.cpp - our stand-in for the host's display library.
 */
#include <panelkit/panelkit.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "utf8.h"

Boxs::Boxs(int w, int h) : width(w), height(h)
{
    if (w > 0 && h > 0) {
        Graph_Normal = static_cast<unsigned int*>(
            std::calloc(static_cast<size_t>(w) * static_cast<size_t>(h), sizeof(unsigned int)));
        owns_ = Graph_Normal != nullptr;
    }
}

Boxs::~Boxs()
{
    if (owns_) std::free(Graph_Normal);
}

void Boxs::Draw()
{
    if (draw_handler) draw_handler(this, draw_context);
}

static std::mutex g_handler_lock;
static Message_Handler g_handler = nullptr;
static void* g_handler_context = nullptr;

void Panelkit_Set_Message_Handler(Message_Handler handler, void* context)
{
    std::lock_guard<std::mutex> guard(g_handler_lock);
    g_handler = handler;
    g_handler_context = context;
}

static std::string to_utf8(const wchar_t* s)
{
    std::string out;
    for (; s && *s; s++) put_utf8(out, static_cast<char32_t>(*s));
    return out;
}

int PopUp_Message(const wchar_t* title, const wchar_t* caption, const wchar_t* text, int, int,
                  const char*)
{
    Message_Handler handler;
    void* context;
    {
        std::lock_guard<std::mutex> guard(g_handler_lock);
        handler = g_handler;
        context = g_handler_context;
    }
    if (handler) return handler(title, caption, text, context);
    std::fprintf(stderr, "%s\n%s\n%s\n", to_utf8(title).c_str(), to_utf8(caption).c_str(),
                 to_utf8(text).c_str());
    return 0;
}
