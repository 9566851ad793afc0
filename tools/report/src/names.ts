// Names, which are whatever bytes a traced program gave: how they are matched and how they are shown.

/** Whether a text is as a pattern says: * stands for any characters, ? for one, and others for themselves. */
export function matches(pattern: string, text: string): boolean {
    let at = 0;
    let star = -1;
    let behindStar = 0;
    for (let i = 0; i < text.length; ) {
        if (pattern[at] === '*') {
            star = at++;
            behindStar = i;
        } else if (at < pattern.length && (pattern[at] === '?' || pattern[at] === text[i])) {
            ++at;
            ++i;
        } else if (star >= 0) {
            at = star + 1;
            i = ++behindStar;
        } else {
            return false;
        }
    }
    while (pattern[at] === '*') ++at;
    return at === pattern.length;
}

/** What a person looks for, as a pattern: a part of a name, unless there are * or ? in it. */
export function patternOf(text: string): string {
    return /[*?]/.test(text) ? text : `*${text}*`;
}

// Control characters, what changes the direction of a text, what has no width, and halves of characters.
// eslint-disable-next-line no-control-regex
const kUnseen =
    /[\u0000-\u001f\u007f-\u009f\u00ad\u061c\u180e\u200b-\u200f\u2028-\u202e\u2060-\u206f\ufeff\ufff9-\ufffb]|[\ud800-\udbff](?![\udc00-\udfff])|(?<![\ud800-\udbff])[\udc00-\udfff]/g;

/** A name as it is shown: on one line, not longer than that, with what cannot be seen as its number. */
export function shown(text: string, most = 300): string {
    const cut = text.length > most;
    const part = cut ? text.slice(0, most) : text;
    const seen = part.replace(kUnseen, (one) => `\\u{${one.charCodeAt(0).toString(16)}}`);
    return cut ? `${seen}…` : seen;
}

/** A word of a command line for a shell. */
export function quoted(text: string): string {
    return /^[A-Za-z0-9_./:=@%+,-]+$/.test(text) ? text : `'${text.replace(/'/g, `'\\''`)}'`;
}
