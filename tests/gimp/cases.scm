; The GIMP side of the plug-in test: each case opens the test photo, calls a
; Korvane procedure non-interactively with the numbers `korvane <command>
; --help` lists, in its order, and exports PNGs for test_gimp.cpp to compare
; with the tool's. `korvane-dir` (the scratch folder, ending in "/") is
; defined before this file is loaded; each case is its own batch command, so
; one failing case does not stop the others.

(define (path name) (string-append korvane-dir name))

(define (open-image name) (car (gimp-file-load RUN-NONINTERACTIVE (path name) name)))

(define (bottom-layer img)
  (let ((layers (gimp-image-get-layers img)))
    (vector-ref (cadr layers) (- (car layers) 1))))

(define (save img drawable name) (gimp-file-save RUN-NONINTERACTIVE img drawable (path name) name))

; A hidden layer from a file, at the bottom of the stack.
(define (add-layer img name)
  (let ((layer (car (gimp-file-load-layer RUN-NONINTERACTIVE img (path name)))))
    (gimp-image-insert-layer img layer 0 (car (gimp-image-get-layers img)))
    (gimp-item-set-visible layer FALSE)
    layer))

; The selection made from mask.png's white part (the mask is 0 or 255).
(define (select-mask img)
  (gimp-image-select-color img CHANNEL-OP-REPLACE (add-layer img "mask.png") '(255 255 255)))

; mask.png's white part as a channel; the selection is left empty.
(define (mask-channel img)
  (select-mask img)
  (let ((channel (car (gimp-selection-save img))))
    (gimp-selection-none img)
    channel))

; A path of one stroke per list of anchors (x y x y ...), each anchor with
; its handles on it, so the strokes are straight lines through the anchors.
(define (add-path img strokes)
  (let ((vectors (car (gimp-vectors-new img "flows"))))
    (gimp-image-insert-vectors img vectors 0 0)
    (for-each
      (lambda (anchors)
        (let loop ((rest anchors) (points '()))
          (if (null? rest)
              (let ((v (list->vector points)))
                (gimp-vectors-stroke-new-from-points vectors 0 (vector-length v) v FALSE))
              (let ((x (car rest)) (y (cadr rest)))
                (loop (cddr rest) (append points (list x y x y x y)))))))
      strokes)
    vectors))

; Every layer from the top, "name" lines in `name`.txt, and each frame layer
; exported as `name`-frame-K.png, K from its layer name "Frame K (...)".
(define (save-frames img name)
  (let ((port (open-output-file (path (string-append name ".txt")))))
    (for-each
      (lambda (layer)
        (let ((title (car (gimp-item-get-name layer))))
          (display title port)
          (newline port)
          (if (and (> (string-length title) 6) (string=? (substring title 0 6) "Frame "))
              (save img layer (string-append name "-frame-" (cadr (strbreakup title " ")) ".png")))))
      (vector->list (cadr (gimp-image-get-layers img))))
    (close-output-port port)))

(define (case-focus-blur)
  (let* ((img (open-image "photo.png")) (d (bottom-layer img)) (depth (add-layer img "depth.png")))
    ; guide stretch-guide level focus range
    (plug-in-korvane-focus-blur RUN-NONINTERACTIVE img d depth 0 80 200 16)
    (save img d "focus-blur.png")))

(define (case-glitch)
  (let* ((img (open-image "photo.png")) (d (bottom-layer img)))
    (gimp-image-select-rectangle img CHANNEL-OP-REPLACE 30 20 90 70)
    ; type shift-x shift-y radius rotation
    (plug-in-korvane-glitch RUN-NONINTERACTIVE img d 6 30 0 60 45)
    (save img d "glitch.png")))

(define (case-glow)
  (let* ((img (open-image "photo.png")) (d (bottom-layer img)))
    ; intensity contrast radius threshold saturation tint hue
    ; brightness opacity blend mask roi
    (plug-in-korvane-glow RUN-NONINTERACTIVE img d 0.6 2 -1 150 0 0 0 1 1 23 (mask-channel img) 4 #(10 8 150 100))
    (save img d "glow.png")))

(define (case-light-rays)
  (let* ((img (open-image "photo.png")) (d (bottom-layer img)))
    ; mode center direction length radius threshold softness strength brightness
    ; saturation hue-shift lampshade mask roi sway cycle-hue frames frame
    (plug-in-korvane-light-rays RUN-NONINTERACTIVE img d 0 2 #(80 40) 270 -1 0 150 -1 -1 0.5 0 0 3 #(270 60 20)
                                -1 0 #() 1 0 3 -1)
    (save-frames img "light-rays")))

(define (case-bokeh)
  (let* ((img (open-image "photo.png")) (d (bottom-layer img)) (depth (add-layer img "depth.png")))
    ; guide stretch-guide shape amount size-blend rotation saturation hue-shift
    ; color quality-mode level focus range twinkle cycle-hue roi frames frame
    (plug-in-korvane-bokeh RUN-NONINTERACTIVE img d depth 0 4 1 0 0 0 0 1 1 100 230 51 1 0 0 #() 4 2)
    (save img d "bokeh.png")))

(define (case-sparkle)
  (let* ((img (open-image "photo.png")) (d (bottom-layer img))
         (glints (add-path img '((20.5 12.5) (60.5 30.5 100.5 80.5)))))
    ; shape manual manual-shape amount size rotation saturation brightness
    ; color quality-mode spin twinkle roi frames frame; 48 frames without a
    ; loop switch on still render the still into the layer
    (plug-in-korvane-sparkle RUN-NONINTERACTIVE img d 0 glints 3 1 3 0 0 0 0 -1 0 0 0 #() 48 -1)
    (save img d "sparkle.png")))

(define (case-animate)
  (let* ((img (open-image "photo.png")) (d (bottom-layer img))
         (flows (add-path img '((10.5 20.5 50.5 24.5 90.5 30.5) (120.5 100.5)))))
    (select-mask img)
    ; flows still loop-mode frames frame: the selection holds its part still
    (plug-in-korvane-animate RUN-NONINTERACTIVE img d flows (car (gimp-image-get-selection img)) 1 4 -1)
    (save-frames img "animate")
    (let ((port (open-output-file (path "animate-selection.txt"))))
      (display (if (= (car (gimp-selection-is-empty img)) TRUE) "empty" "kept") port)
      (close-output-port port))
    ; Without the photo and the mask's layer the frames export as the loop:
    ; an animated WebP, lossless, each frame's delay from its layer's name.
    (gimp-image-remove-layer img d)
    (gimp-image-remove-layer img (bottom-layer img))
    (file-webp-save RUN-NONINTERACTIVE img (bottom-layer img) (path "animate.webp") "animate.webp"
                    0 1 100 100 1 1 0 0 0 0 0 100 0)))

(define (case-disperse)
  (let* ((img (open-image "photo.png")) (d (bottom-layer img)))
    ; mask direction spread distance size density width fade turbulence seed
    ; loop frames frame
    (plug-in-korvane-disperse RUN-NONINTERACTIVE img d (mask-channel img) 0 40 0.3 1.5 0.8 0.3 1 0.3 7 1 3 -1)
    (save-frames img "disperse")))

; A layer with alpha in a floating-point linear image.
(define (case-glow-alpha)
  (let* ((img (open-image "photo-alpha.png")) (d (bottom-layer img)))
    (gimp-image-convert-precision img PRECISION-FLOAT-LINEAR)
    (plug-in-korvane-glow RUN-NONINTERACTIVE img d 0.6 2 -1 150 0 0 0 1 1 5 -1 0 #())
    (gimp-image-convert-precision img PRECISION-U8-GAMMA)
    (save img d "glow-alpha.png")))

; The second call repeats the first one's values whatever it is given.
(define (case-last-values)
  (let* ((img (open-image "photo.png")) (d (bottom-layer img)))
    (plug-in-korvane-glitch RUN-NONINTERACTIVE img d 3 -40 12 40 0)
    (let* ((again (open-image "photo.png")) (d2 (bottom-layer again)))
      (plug-in-korvane-glitch RUN-WITH-LAST-VALS again d2 0 0 0 0 0)
      (save again d2 "last-values.png"))))

; The message of each refused call, one a line.
(define (case-refusals)
  (let* ((port (open-output-file (path "refusals.txt")))
         (gray (open-image "depth.png")) (img (open-image "photo.png")) (d (bottom-layer img))
         (message "")
         (refused (lambda (call)
                    (let ((hook *error-hook*))
                      (set! message "ran")
                      (set! *error-hook* (lambda x (set! message (car x)) (apply hook x)))
                      (catch #f (call))
                      (set! *error-hook* hook)
                      (display message port)
                      (newline port)))))
    (refused (lambda () (plug-in-korvane-glitch RUN-NONINTERACTIVE gray (bottom-layer gray) 0 30 0 40 0)))
    (refused (lambda () (plug-in-korvane-glow RUN-NONINTERACTIVE img d 2 2 -1 200 0 0 0 1 1 5 -1 0 #())))
    (refused (lambda () (plug-in-korvane-glow RUN-NONINTERACTIVE img d 0.3 2 -1 200 0 0 0 1 1 29 -1 0 #())))
    (refused (lambda () (plug-in-korvane-light-rays RUN-NONINTERACTIVE img d 0 1 #(80) 270 -1 0 150 -1 1 0.5 0 0
                                                    0 #() -1 0 #() 0 0 1 -1)))
    (refused (lambda () (plug-in-korvane-disperse RUN-NONINTERACTIVE img d -1 0 40 0.3 1.5 0.8 0.3 1 0.3 7 1 3 -1)))
    (refused (lambda () (plug-in-korvane-bokeh RUN-NONINTERACTIVE img d -1 0 0 1 0 0 0 0 1 1 100 230 51 0 0 0 #() 2 5)))
    (close-output-port port)))
