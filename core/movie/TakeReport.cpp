#include "core/movie/TakeReport.h"

#include "core/movie/FFmpegHandles.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/base64.h>
#include <libavutil/imgutils.h>
#include <libavutil/timecode.h>
#include <libswscale/swscale.h>
}

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <system_error>
#include <unistd.h>

namespace quorva {

namespace fs = std::filesystem;
// In the order a person reads them, rather than sorted.
using json = nlohmann::ordered_json;

namespace {

Error ReportError(std::string message) {
    return Error(std::string(ApplicationIdentifier) + ".TakeReport", -1, std::move(message));
}

// Handles of FFmpeg that free themselves.
struct FormatClose {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
struct FrameFree {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct ScaleFree {
    void operator()(SwsContext* context) const { sws_freeContext(context); }
};
using Format = std::unique_ptr<AVFormatContext, FormatClose>;
using Frame = std::unique_ptr<AVFrame, FrameFree>;

// The first picture that `decoder` gives from the packets of `stream` from where `input` stands.
Frame NextPicture(AVFormatContext* input, int stream, AVCodecContext* decoder) {
    Packet packet(av_packet_alloc());
    Frame frame(av_frame_alloc());
    if (!packet || !frame)
        return nullptr;
    bool draining = false;
    for (;;) {
        int received = avcodec_receive_frame(decoder, frame.get());
        if (received == 0)
            return frame;
        if (received != AVERROR(EAGAIN) || draining)
            return nullptr;
        if (av_read_frame(input, packet.get()) < 0) {
            draining = true;
            avcodec_send_packet(decoder, nullptr);
            continue;
        }
        if (packet->stream_index == stream)
            avcodec_send_packet(decoder, packet.get());
        av_packet_unref(packet.get());
    }
}

// `picture` as a JPEG `width` pixels wide at most, its proportions kept.
std::optional<std::string> JPEG(const AVFrame& picture, int width) {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
    if (!codec || picture.width < 2 || picture.height < 2)
        return std::nullopt;
    const int w = std::min(width, picture.width) & ~1;
    const int h = std::max(2, int(std::lround(double(picture.height) * w / picture.width)) & ~1);
    CodecContext encoder(avcodec_alloc_context3(codec));
    Frame small(av_frame_alloc());
    if (!encoder || !small)
        return std::nullopt;
    encoder->width = w;
    encoder->height = h;
    encoder->time_base = {1, 25};
    encoder->pix_fmt = AV_PIX_FMT_YUV420P;
    // Full range, as JPEG means it; the scaler below is told so.
    encoder->color_range = AVCOL_RANGE_JPEG;
    encoder->flags |= AV_CODEC_FLAG_QSCALE;
    encoder->global_quality = 4 * FF_QP2LAMBDA;
    if (avcodec_open2(encoder.get(), codec, nullptr) < 0)
        return std::nullopt;
    small->format = AV_PIX_FMT_YUV420P;
    small->width = w;
    small->height = h;
    small->color_range = AVCOL_RANGE_JPEG;
    small->quality = encoder->global_quality;
    if (av_frame_get_buffer(small.get(), 0) < 0)
        return std::nullopt;
    std::unique_ptr<SwsContext, ScaleFree> scale(
        sws_getContext(picture.width, picture.height, AVPixelFormat(picture.format), w, h, AV_PIX_FMT_YUV420P,
                       SWS_BILINEAR, nullptr, nullptr, nullptr));
    if (!scale)
        return std::nullopt;
    // The movies are limited range with BT.709 coefficients; the picture is full range.
    const int* bt709 = sws_getCoefficients(SWS_CS_ITU709);
    sws_setColorspaceDetails(scale.get(), bt709, picture.color_range == AVCOL_RANGE_JPEG, bt709, 1, 0,
                             1 << 16, 1 << 16);
    sws_scale(scale.get(), picture.data, picture.linesize, 0, picture.height, small->data, small->linesize);
    Packet packet(av_packet_alloc());
    if (!packet || avcodec_send_frame(encoder.get(), small.get()) < 0 ||
        avcodec_send_frame(encoder.get(), nullptr) < 0 ||
        avcodec_receive_packet(encoder.get(), packet.get()) < 0)
        return std::nullopt;
    return std::string(reinterpret_cast<const char*>(packet->data), size_t(packet->size));
}

std::string Base64(const std::string& bytes) {
    std::string text(size_t(AV_BASE64_SIZE(bytes.size())), '\0');
    if (!av_base64_encode(text.data(), int(text.size()), reinterpret_cast<const uint8_t*>(bytes.data()),
                          int(bytes.size())))
        return std::string();
    text.resize(text.find('\0'));
    return text;
}

std::string Escaped(const std::string& text) {
    std::string escaped;
    for (char c : text) {
        switch (c) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        default:
            escaped += c;
        }
    }
    return escaped;
}

std::string Number(const char* format, double value) {
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

json OrNull(const std::optional<std::string>& text) {
    return text ? json(*text) : json(nullptr);
}

// A strip of the movie's timeline, a column a second (a take stopped a few milliseconds after a whole
// second has no column for them): held pictures rise from the bottom in amber,
// dropped ones hang from the top in red, each as tall as its share of the second's pictures.
std::string TimelineSVG(const TakeReportMovie& movie, double duration) {
    const size_t seconds = std::max({size_t(std::ceil(std::max(duration - 0.01, 0.0))),
                                     movie.heldEachSecond.size(), movie.droppedEachSecond.size(), size_t(1)});
    const double perSecond = std::max(movie.frameRate, 1.0);
    std::string svg =
        "<svg class=\"timeline\" viewBox=\"0 0 " + std::to_string(seconds) +
        " 20\" preserveAspectRatio=\"none\" role=\"img\" aria-label=\"Pictures held and dropped, "
        "second by second\"><rect width=\"" +
        std::to_string(seconds) + "\" height=\"20\" fill=\"#2e7d32\"/>";
    for (size_t second = 0; second < seconds; ++second) {
        const uint32_t held = second < movie.heldEachSecond.size() ? movie.heldEachSecond[second] : 0;
        const uint32_t dropped =
            second < movie.droppedEachSecond.size() ? movie.droppedEachSecond[second] : 0;
        if (held == 0 && dropped == 0)
            continue;
        const std::string title = "<title>" + std::to_string(second) + " s: " + std::to_string(held) +
                                  " held, " + std::to_string(dropped) + " dropped</title>";
        const std::string x = std::to_string(second);
        if (held > 0) {
            const double h = std::min(20.0, std::max(2.0, 20 * held / perSecond));
            svg += "<rect class=\"held\" x=\"" + x + "\" y=\"" + Number("%.2f", 20 - h) +
                   "\" width=\"1\" height=\"" + Number("%.2f", h) + "\" fill=\"#f9a825\">" + title +
                   "</rect>";
        }
        if (dropped > 0) {
            const double h = std::min(20.0, std::max(2.0, 20 * dropped / perSecond));
            svg += "<rect class=\"dropped\" x=\"" + x + "\" y=\"0\" width=\"1\" height=\"" +
                   Number("%.2f", h) + "\" fill=\"#c62828\">" + title + "</rect>";
        }
    }
    return svg + "</svg>";
}

Result<> WriteNew(const fs::path& path, const std::string& text) {
    // O_EXCL: a report never replaces a file, whoever made it meanwhile.
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (file < 0)
        return ReportError("The report “" + path.string() +
                           "” could not be written: " + std::generic_category().message(errno));
    size_t written = 0;
    while (written < text.size()) {
        const ssize_t n = ::write(file, text.data() + written, text.size() - written);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            const int error = errno;
            ::close(file);
            std::error_code ignored;
            fs::remove(path, ignored);
            return ReportError("The report “" + path.string() +
                               "” could not be written: " + std::generic_category().message(error));
        }
        written += size_t(n);
    }
    ::fsync(file);
    ::close(file);
    return {};
}

} // namespace

std::string ISO8601(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[40];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &local);
    // strftime writes the offset as +0100; ISO 8601's extended form, which the rest is in, wants +01:00.
    std::string written = text;
    if (written.size() >= 5)
        written.insert(written.size() - 2, ":");
    return written;
}

std::string TimecodeAt(double timeOfDay, double framesPerSecond) {
    if (!(timeOfDay >= 0) || !(framesPerSecond > 0))
        return std::string();
    // As the movies carry it: the NTSC rates as their exact fractions, with dropped frame numbers.
    AVRational rate = av_d2q(framesPerSecond, 1000000);
    for (int whole : {24, 30, 48, 60, 120}) {
        if (std::fabs(framesPerSecond - whole * 1000.0 / 1001) < 0.001)
            rate = {whole * 1000, 1001};
    }
    const bool drop = rate.den == 1001 && (rate.num == 30000 || rate.num == 60000);
    AVTimecode timecode;
    char text[AV_TIMECODE_STR_SIZE];
    if (av_timecode_init(&timecode, rate,
                         AV_TIMECODE_FLAG_24HOURSMAX | (drop ? AV_TIMECODE_FLAG_DROPFRAME : 0), 0,
                         nullptr) < 0)
        return std::string();
    return av_timecode_make_string(&timecode, text, int(std::floor(timeOfDay * av_q2d(rate))));
}

std::optional<std::string> Thumbnail(const fs::path& movie, int width) {
    AVFormatContext* opened = nullptr;
    if (avformat_open_input(&opened, movie.c_str(), nullptr, nullptr) < 0)
        return std::nullopt;
    Format input(opened);
    if (avformat_find_stream_info(input.get(), nullptr) < 0)
        return std::nullopt;
    const AVCodec* codec = nullptr;
    const int stream = av_find_best_stream(input.get(), AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    if (stream < 0 || !codec)
        return std::nullopt;
    CodecContext decoder(avcodec_alloc_context3(codec));
    if (!decoder || avcodec_parameters_to_context(decoder.get(), input->streams[stream]->codecpar) < 0 ||
        avcodec_open2(decoder.get(), codec, nullptr) < 0)
        return std::nullopt;
    // The middle of the movie shows what it is about better than its first picture, which may be black
    // when its source came late.
    const AVStream* video = input->streams[stream];
    if (video->duration > 0 &&
        av_seek_frame(input.get(), stream,
                      video->start_time == AV_NOPTS_VALUE ? video->duration / 2
                                                          : video->start_time + video->duration / 2,
                      AVSEEK_FLAG_BACKWARD) >= 0)
        avcodec_flush_buffers(decoder.get());
    Frame picture = NextPicture(input.get(), stream, decoder.get());
    if (!picture)
        return std::nullopt;
    std::optional<std::string> jpeg = JPEG(*picture, width);
    if (!jpeg)
        return std::nullopt;
    return "data:image/jpeg;base64," + Base64(*jpeg);
}

std::string ReportJSON(const TakeReport& report) {
    json movies = json::array();
    for (const TakeReportMovie& movie : report.movies) {
        movies.push_back({{"file", movie.file},
                          {"source", movie.source},
                          {"kind", movie.assembled ? "assembled" : "separate"},
                          {"width", movie.width},
                          {"height", movie.height},
                          {"frame_rate", movie.frameRate},
                          {"codec", movie.codec},
                          {"encoder", movie.encoder},
                          {"frames_due", movie.framesDue},
                          {"frames_written", movie.framesWritten},
                          {"frames_held", movie.framesHeld},
                          {"frames_dropped", movie.framesDropped},
                          {"sound_seconds", movie.soundSeconds},
                          {"sound_left_out_seconds", movie.soundLeftOutSeconds},
                          {"error", OrNull(movie.error)}});
    }
    json document = {{"name", report.name},
                     {"started", report.started},
                     {"duration", report.duration},
                     {"timecode", report.timecode},
                     {"stop_reason", OrNull(report.stopReason)},
                     {"disk",
                      {{"folder", report.folder.string()},
                       {"free_bytes_at_start", report.freeBytesAtStart},
                       {"free_bytes_at_end", report.freeBytesAtEnd}}},
                     {"movies", movies}};
    // Titles of sources are the user's: whatever bytes they hold must not stop the report.
    return document.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

std::string ReportHTML(const TakeReport& report, const std::vector<std::string>& pictures) {
    std::string page =
        "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n<title>" +
        Escaped(report.name) +
        "</title>\n<style>\n"
        "body { font-family: sans-serif; margin: 2em; background: #fafafa; color: #222 }\n"
        ".movie { background: #fff; border: 1px solid #ddd; padding: 1em; margin: 1em 0 }\n"
        ".movie img { float: left; margin-right: 1em; max-width: 320px }\n"
        ".movie table { border-collapse: collapse } .movie td { padding: 0 1em 0 0 }\n"
        ".timeline { display: block; clear: both; width: 100%; height: 24px; margin-top: 1em }\n"
        ".failure { color: #c62828; font-weight: bold }\n"
        "</style>\n</head>\n<body>\n<h1>" +
        Escaped(report.name) + "</h1>\n<p>Started " + Escaped(report.started) + ", " +
        Number("%.1f", report.duration) + " s" +
        (report.timecode.empty() ? std::string() : ", timecode " + Escaped(report.timecode)) + ". " +
        std::to_string(report.movies.size()) + (report.movies.size() == 1 ? " movie" : " movies") + " in " +
        Escaped(report.folder.string()) + ".</p>\n";
    if (report.stopReason)
        page += "<p class=\"failure\">" + Escaped(*report.stopReason) + "</p>\n";
    for (size_t i = 0; i < report.movies.size(); ++i) {
        const TakeReportMovie& movie = report.movies[i];
        page += "<section class=\"movie\">\n<h2>" + Escaped(movie.file) + "</h2>\n";
        const std::string picture = i < pictures.size() ? pictures[i] : std::string();
        if (!picture.empty())
            page += "<img src=\"" + picture + "\" alt=\"A picture from " + Escaped(movie.file) + "\">\n";
        else
            page += "<p>No picture could be read from this movie.</p>\n";
        if (movie.error)
            page += "<p class=\"failure\">" + Escaped(*movie.error) + "</p>\n";
        auto row = [&](const std::string& label, const std::string& value) {
            page += "<tr><td>" + label + "</td><td>" + Escaped(value) + "</td></tr>\n";
        };
        page += "<table>\n";
        row("Source", movie.assembled ? "All sources, assembled" : movie.source);
        row("Picture", std::to_string(movie.width) + " × " + std::to_string(movie.height) + " at " +
                           Number("%g", movie.frameRate) + " frames a second");
        row("Codec", movie.codec + (movie.encoder.empty() ? "" : " (" + movie.encoder + ")"));
        row("Pictures", std::to_string(movie.framesWritten) + " written of " +
                            std::to_string(movie.framesDue) + " due: " + std::to_string(movie.framesHeld) +
                            " held, " + std::to_string(movie.framesDropped) + " dropped");
        row("Sound", Number("%.2f", movie.soundSeconds) + " s, " + Number("%.2f", movie.soundLeftOutSeconds) +
                         " s left out");
        page += "</table>\n" + TimelineSVG(movie, report.duration) + "\n</section>\n";
    }
    return page + "</body>\n</html>\n";
}

Result<> WriteTakeReport(const TakeReport& report) {
    std::vector<std::string> pictures;
    for (const TakeReportMovie& movie : report.movies)
        pictures.push_back(Thumbnail(report.folder / movie.file).value_or(std::string()));
    const fs::path json = report.folder / (report.name + ".json"),
                   html = report.folder / (report.name + ".html");
    if (Result<> written = WriteNew(json, ReportJSON(report)); !written)
        return written;
    return WriteNew(html, ReportHTML(report, pictures));
}

} // namespace quorva
