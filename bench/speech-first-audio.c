/* Time to first audio of the two speech engines, for bench/linux-speech.sh: says each line of
 * standard input, INTERVAL ms apart, cutting the one before short as the agent does, and writes
 * for each
 *   N ASKED FIRST
 * ASKED the monotonic clock in microseconds when the engine took the text (the call returned,
 * which is when the agent prints its `say` line), FIRST when its first audio came, or "-" when it
 * never did (cut short before):
 *   speechd  the daemon's BEGIN event for the message (SPEECHD_ADDRESS, else libspeechd's
 *            default);
 *   espeak   espeak-ng's first chunk of audio, rendered as the agent renders (50 ms buffers),
 *            plus the offset of the first sample of at least THRESHOLD in magnitude: when a
 *            device fed from that first chunk plays that sample.
 *
 * Usage: orv-speech-first-audio speechd INTERVAL_MS RATE          (RATE: the daemon's -100..100)
 *        orv-speech-first-audio espeak INTERVAL_MS WPM VOICE THRESHOLD */
#include <espeak-ng/speak_lib.h>
#include <libspeechd.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

enum { kMax = 4096 };

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static long long asked[kMax], first[kMax];
static int ids[kMax]; /* speechd message id of each line */
static int lines;

static long long now_us(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (long long)t.tv_sec * 1000000 + t.tv_nsec / 1000;
}

static void sleep_until(long long us) {
    struct timespec t = {.tv_sec = us / 1000000, .tv_nsec = (us % 1000000) * 1000};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &t, NULL) != 0) {}
}

/* ---- speech-dispatcher */

static volatile int speaking;

/* BEGIN may come before spd_say has returned its id: keep the time by id, matched afterwards. */
static long long begun_at[kMax];
static int begun_id[kMax];
static int begun;

static void on_event(size_t msg_id, size_t client_id, SPDNotificationType type) {
    (void)client_id;
    const long long t = now_us();
    pthread_mutex_lock(&lock);
    if (type == SPD_EVENT_BEGIN && begun < kMax) {
        begun_id[begun] = (int)msg_id;
        begun_at[begun++] = t;
    } else if (type == SPD_EVENT_END || type == SPD_EVENT_CANCEL) {
        speaking = 0;
    }
    pthread_mutex_unlock(&lock);
}

static int run_speechd(char texts[][512], int n, long long interval, int rate) {
    char *error = NULL;
    SPDConnection *c =
        spd_open2("orv-bench", "first-audio", NULL, SPD_MODE_THREADED, NULL, 0, &error);
    if (!c) {
        fprintf(stderr, "orv-speech-first-audio: no speech-dispatcher: %s\n", error ? error : "?");
        return 1;
    }
    c->callback_begin = c->callback_end = c->callback_cancel = on_event;
    if (spd_set_notification_on(c, SPD_BEGIN) || spd_set_notification_on(c, SPD_END) ||
        spd_set_notification_on(c, SPD_CANCEL)) {
        fprintf(stderr, "orv-speech-first-audio: notifications refused\n");
        return 1;
    }
    spd_set_voice_rate(c, rate);
    spd_set_volume(c, 100);
    long long next = now_us();
    for (int i = 0; i < n; i++) {
        sleep_until(next);
        next += interval * 1000;
        if (speaking) spd_cancel(c);
        speaking = 1;
        const int id = spd_say(c, SPD_TEXT, texts[i]);
        asked[i] = now_us();
        ids[i] = id;
        lines = i + 1;
    }
    sleep_until(next + 1000000);
    pthread_mutex_lock(&lock);
    for (int i = 0; i < lines; i++) {
        first[i] = -1;
        for (int k = 0; k < begun; k++)
            if (ids[i] > 0 && begun_id[k] == ids[i]) first[i] = begun_at[k];
    }
    pthread_mutex_unlock(&lock);
    spd_close(c);
    return 0;
}

/* ---- espeak-ng */

static int current = -1;     /* the line being rendered */
static long long chunk0;     /* when its first chunk came */
static long long samples;    /* its samples so far */
static int sample_rate, threshold;

static int on_synth(short *wav, int count, espeak_EVENT *events) {
    const int line = events ? (int)(size_t)events->user_data : -1;
    pthread_mutex_lock(&lock);
    int go = line == current;
    if (go && wav && count > 0) {
        if (samples == 0) chunk0 = now_us();
        for (int k = 0; k < count && first[line] < 0; k++)
            if (abs(wav[k]) >= threshold)
                first[line] = chunk0 + (samples + k) * 1000000LL / sample_rate;
        samples += count;
    }
    pthread_mutex_unlock(&lock);
    return go ? 0 : 1;
}

static int run_espeak(char texts[][512], int n, long long interval, int wpm, const char *voice) {
    sample_rate = espeak_Initialize(AUDIO_OUTPUT_RETRIEVAL, 50, NULL, espeakINITIALIZE_DONT_EXIT);
    if (sample_rate <= 0) {
        fprintf(stderr, "orv-speech-first-audio: espeak-ng did not start\n");
        return 1;
    }
    espeak_SetSynthCallback(on_synth);
    if (espeak_SetVoiceByName(voice) != EE_OK)
        fprintf(stderr, "orv-speech-first-audio: voice %s refused, default used\n", voice);
    espeak_SetParameter(espeakRATE, wpm, 0);
    espeak_SetParameter(espeakVOLUME, 100, 0);
    long long next = now_us();
    for (int i = 0; i < n; i++) {
        sleep_until(next);
        next += interval * 1000;
        pthread_mutex_lock(&lock);
        current = -1;
        pthread_mutex_unlock(&lock);
        espeak_Cancel();
        pthread_mutex_lock(&lock);
        current = i;
        samples = 0;
        first[i] = -1;
        pthread_mutex_unlock(&lock);
        espeak_Synth(texts[i], strlen(texts[i]) + 1, 0, POS_CHARACTER, 0, espeakCHARS_UTF8, NULL,
                     (void *)(size_t)i);
        asked[i] = now_us();
        lines = i + 1;
    }
    sleep_until(next + 500000);
    espeak_Synchronize();
    pthread_mutex_lock(&lock);
    current = -1;
    pthread_mutex_unlock(&lock);
    espeak_Terminate();
    return 0;
}

static char texts[kMax][512];

int main(int argc, char **argv) {
    const int is_speechd = argc == 4 && strcmp(argv[1], "speechd") == 0;
    const int is_espeak = argc == 6 && strcmp(argv[1], "espeak") == 0;
    if (!is_speechd && !is_espeak) {
        fprintf(stderr, "usage: %s speechd INTERVAL_MS RATE | espeak INTERVAL_MS WPM VOICE "
                        "THRESHOLD\n", argv[0]);
        return 2;
    }
    int n = 0;
    while (n < kMax && fgets(texts[n], sizeof texts[n], stdin)) {
        texts[n][strcspn(texts[n], "\n")] = 0;
        if (texts[n][0]) n++;
    }
    const long long interval = atoll(argv[2]);
    int status;
    if (is_speechd) {
        status = run_speechd(texts, n, interval, atoi(argv[3]));
    } else {
        threshold = atoi(argv[5]);
        status = run_espeak(texts, n, interval, atoi(argv[3]), argv[4]);
    }
    for (int i = 0; i < lines; i++) {
        if (first[i] >= 0) printf("%d %lld %lld\n", i + 1, asked[i], first[i]);
        else printf("%d %lld -\n", i + 1, asked[i]);
    }
    return status;
}
