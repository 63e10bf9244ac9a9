/*
 * panelkit.h - the host's display library, as the renderer sees it:
 * the display box with its image buffer and redraw, and the modal
 * message box used on fatal errors.  Our own stand-in for the host's.
 */
#ifndef PANELKIT_PANELKIT_H
#define PANELKIT_PANELKIT_H

#if defined(_WIN32)
#  if defined(PANELKIT_BUILD)
#    define PANELKIT_API __declspec(dllexport)
#  else
#    define PANELKIT_API __declspec(dllimport)
#  endif
#else
#  define PANELKIT_API __attribute__((visibility("default")))
#endif

class PANELKIT_API Boxs {
public:
    int x = 0, y = 0;                      /* position, in mouse coordinates */
    int width = 0, height = 0;             /* image size in pixels */
    unsigned int* Graph_Normal = nullptr;  /* width*height 32-bit pixels, row-major */
    void (*draw_handler)(Boxs* box, void* context) = nullptr; /* the host's redraw */
    void* draw_context = nullptr;

    Boxs() = default;
    Boxs(int width, int height);           /* allocates and owns a zeroed Graph_Normal */
    ~Boxs();                               /* releases the buffer only if it owns it */
    Boxs(const Boxs&) = delete;
    Boxs& operator=(const Boxs&) = delete;
    Boxs(Boxs&&) = delete;
    Boxs& operator=(Boxs&&) = delete;

    void Draw();                           /* draw_handler(this, draw_context), if set */

private:
    bool owns_ = false;
};

/*
 * Modal message box.  Calls the installed handler and returns its result;
 * with none installed, writes title, caption and text to standard error
 * (UTF-8, markup characters kept) and returns 0.
 */
PANELKIT_API int PopUp_Message(const wchar_t* title, const wchar_t* caption, const wchar_t* text,
                               int width, int height, const char* options);

typedef int (*Message_Handler)(const wchar_t* title, const wchar_t* caption,
                               const wchar_t* text, void* context);
PANELKIT_API void Panelkit_Set_Message_Handler(Message_Handler handler, void* context);

#endif
